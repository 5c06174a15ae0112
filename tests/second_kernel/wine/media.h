// The media of a story's devices, which outlive the boots.
#pragma once

namespace shim {

// Before the story's function.
void PrepareMedia();
// Writes every medium that the boot asked for to its file. PASSIVE_LEVEL, after it.
void SaveMedia();

}  // namespace shim
