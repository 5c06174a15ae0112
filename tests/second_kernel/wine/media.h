// The media of a story's devices, which outlive the boots.
#pragma once

namespace shim {

// Writes every medium that the boot asked for to its file. PASSIVE_LEVEL, after the story's function.
void SaveMedia();

}  // namespace shim
