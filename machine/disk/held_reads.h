// Reads that a disk has begun and left to the threads that sent them. A thread that sends several before it
// waits has them all under way, and finishes them itself, oldest first, when it waits.
#pragma once
#include "platform/kernel.h"

namespace machine {

// For a read that was marked pending and is the caller's to complete. `carryOut` gets it with the context,
// exactly once, at the IRQL of a wait and on this thread, before that thread sleeps.
void HoldRead(PIRP irp, void (*carryOut)(PIRP irp, void* context), void* context);

}  // namespace machine
