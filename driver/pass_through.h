// Commands that a program hands to a disk past the disk's own driver: which of them may go on where the driver
// counts on the sectors. Under gHardening the request is read with the layout that its sender compiled, and
// more commands are refused.
#pragma once
#include "platform/kernel.h"

// Is this one of the codes whose requests carry a command?
[[nodiscard]] BOOLEAN IsPassThrough(ULONG code);
// STATUS_SUCCESS lets the request go on; STATUS_ACCESS_DENIED for a command that changes the disk;
// STATUS_INVALID_PARAMETER for an input shorter than its structure. Only the structure is looked at, never its
// data. `code` is one that IsPassThrough knows. Takes no lock; IRQL: at most APC_LEVEL.
[[nodiscard]] NTSTATUS CheckPassThrough(PIRP request, ULONG code, ULONG inputLength);
