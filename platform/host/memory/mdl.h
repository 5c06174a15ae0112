// Buffers as requests describe them. The host's memory is always resident and mapped where it lies; what is
// kept is the discipline: pages are locked before they are mapped, unlocked once, and never freed locked.
#pragma once
#include "platform/host/nt/ntio.h"

namespace host {

// An MDL for `length` bytes at `address`, neither locked nor built: IoAllocateMdl without injected failures.
// Throws std::bad_alloc.
PMDL NewMdl(PVOID address, ULONG length);

// MmProbeAndLockPages of this MDL raises STATUS_ACCESS_VIOLATION, as for a user buffer that went away.
void MarkMdlBad(PMDL mdl);

// Locks the pages as MmProbeAndLockPages does, without injected failures: for the kernel's own requests.
void LockMdl(PMDL mdl);

}  // namespace host
