// The saved map: every redirected and every free range as packed 12-byte entries in the sectors of kvr.MAP.
#pragma once
#include "swap/swap.h"

// Always STATUS_SUCCESS. Saves when the trees changed; a volume whose storage is unusable is never saved.
NTSTATUS WriteSwapMap(PDEVICE_OBJECT device, BOOLEAN force);
NTSTATUS SerializeSwapMap(PDEVICE_OBJECT device);
// Reads the run in MapBuffer into the trees. Trusts nothing: an entry with a bad check byte, without sectors,
// beyond the range of offsets, redirecting a range twice or freeing a space twice is STATUS_INVALID_PARAMETER.
// (Whether other spaces of the swap overlap is looked at once, when the whole map is there.)
// STATUS_END_OF_FILE when the run holds no entry.
[[nodiscard]] NTSTATUS DeserializeSwapMap(PDEVICE_OBJECT device);
