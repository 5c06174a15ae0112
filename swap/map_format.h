// Writing the saved map, and reading one run of it. IRQL: PASSIVE_LEVEL; each takes SwapLock, and a save holds
// it through its transfers.
#pragma once
#include "swap/swap.h"

// Where the run begins on its volume, in bytes; `unit` is the volume's BytesPerSector.
[[nodiscard]] inline LONGLONG RunOffset(const MAP_LOCATION_ENTRY& run, ULONG unit) {
    return static_cast<LONGLONG>(run.ulSector) * unit;
}

// Saves the map when the trees changed, on a volume that redirects or whose storage was made in this boot
// (`force`: on any that has a place for it). A volume whose storage is unusable (under gHardening: not one that
// is protected and whose files could not be held), or whose saved map could not be read whole, is never saved.
// Always STATUS_SUCCESS: a save that fails is reported and leaves MapDirty set, so that the next occasion saves
// again. What the save points to is flushed before it, and the save itself behind.
NTSTATUS WriteSwapMap(PDEVICE_OBJECT device, BOOLEAN force);
// WriteSwapMap without `force`, at most once in 30 seconds: of several requests that find it due, one saves.
// Under gHardening not while the next boot gives every change up anyway.
void SaveMapWhenDue(PVOLUME_EXTENSION volume);
// The save itself, with none of these questions but whether the trees changed. Always STATUS_SUCCESS.
NTSTATUS SerializeSwapMap(PDEVICE_OBJECT device);
// From now on the swap changes while no map of it can be saved: the saved one is made unusable, so that the
// next boot reports it and shows the fixed state alone, instead of two states mixed. What cannot be written now
// is tried again whenever a save would be due. To be called with a SwapState that lets nothing be saved.
void RetireSavedMap(PVOLUME_EXTENSION volume);
// Fills the buffer with what every boot finds to be a damaged map.
void FillAsDamagedMap(UCHAR* buffer, ULONG bytes);
// Reads the run in MapBuffer, MapBufferSize bytes, which stays the caller's, into the trees. Trusts nothing: an
// entry with a bad check byte, without sectors, beyond the range of offsets, redirecting a range twice or
// freeing a space twice is STATUS_INVALID_PARAMETER. (Whether other spaces of the swap overlap is looked at
// once, when the whole map is there.) STATUS_END_OF_FILE when the run holds no entry;
// STATUS_INSUFFICIENT_RESOURCES or STATUS_UNSUCCESSFUL when a chunk could not be stored.
[[nodiscard]] NTSTATUS DeserializeSwapMap(PDEVICE_OBJECT device);
