// Writing the saved map, and reading one run of it. IRQL: PASSIVE_LEVEL; each takes SwapLock, and a save holds
// it through its transfers.
#pragma once
#include "swap/swap.h"

// Where the run begins on its volume, in bytes; `unit` is the volume's BytesPerSector.
[[nodiscard]] inline LONGLONG RunOffset(const MAP_LOCATION_ENTRY& run, ULONG unit) {
    return static_cast<LONGLONG>(run.ulSector) * unit;
}

// Saves the map when the trees changed, on a volume that redirects or whose storage was made in this boot
// (`force`: on any that has a place for it). A volume whose storage is unusable, or whose saved map could not
// be read whole, is never saved. Always STATUS_SUCCESS: what cannot be written is found at the next boot.
NTSTATUS WriteSwapMap(PDEVICE_OBJECT device, BOOLEAN force);
// The save itself, with none of these questions but whether the trees changed. Always STATUS_SUCCESS.
NTSTATUS SerializeSwapMap(PDEVICE_OBJECT device);
// Reads the run in MapBuffer, MapBufferSize bytes, which stays the caller's, into the trees. Trusts nothing: an
// entry with a bad check byte, without sectors, beyond the range of offsets, redirecting a range twice or
// freeing a space twice is STATUS_INVALID_PARAMETER. (Whether other spaces of the swap overlap is looked at
// once, when the whole map is there.) STATUS_END_OF_FILE when the run holds no entry;
// STATUS_INSUFFICIENT_RESOURCES or STATUS_UNSUCCESSFUL when a chunk could not be stored.
[[nodiscard]] NTSTATUS DeserializeSwapMap(PDEVICE_OBJECT device);
