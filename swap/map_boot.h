// The map at boot: where it lies (a registry value named after the volume), its loading at the first read, and
// the boot action: keep, give up, or merge once into the volume.
#pragma once
#include "swap/swap.h"

// IRQL of everything here: PASSIVE_LEVEL. The registry's routines take no lock.

// `location` receives an array of the caller's (pool), `length` its bytes, which need not be whole entries.
// Else STATUS_INVALID_PARAMETER, null and 0.
[[nodiscard]] NTSTATUS RegGetMapLocation(PVOLUME_EXTENSION volume, MAP_LOCATION_ENTRY** location,
                                         ULONG* length);
// `length` bytes of whole entries. STATUS_INVALID_PARAMETER for none and for a volume without a name; else the
// registry's status. On disk when this returns.
[[nodiscard]] NTSTATUS RegSetMapLocation(PVOLUME_EXTENSION volume, const MAP_LOCATION_ENTRY* location,
                                         ULONG length);
// STATUS_INVALID_PARAMETER for a volume without a name and when the key cannot be opened; else the registry's
// status. On disk when this returns.
[[nodiscard]] NTSTATUS RegDelMapLocation(PVOLUME_EXTENSION volume);
// After provisioning: the captured runs go to the registry and into MapLocation. Takes SwapLock.
void PostloadSwapMap(PVOLUME_EXTENSION volume);
// Loads the map and carries out the boot action, once per boot and volume. A run that cannot be read sets
// MapReadFailed, which keeps the saved map from being replaced in this boot. SwapState tells what came of it,
// the status is that of the last step. Takes SwapLock, also through the transfers of a merge or a save. To be
// called under MapLoadMutex.
[[nodiscard]] NTSTATUS PreloadSwapMap(PDEVICE_OBJECT device);
// Loads the map if it is due and not loaded; a request that comes during the load waits for its end. Under
// gHardening a map of which a part cannot be read is not loaded: the trees are empty, SwapMapLoaded stays FALSE
// and the next call tries again. Takes MapLoadMutex. The caller holds the record.
void EnsureSwapMapLoaded(PVOLUME_EXTENSION volume);
// Copies every redirected range from the swap to its own sectors; a range that cannot be copied stays as the
// volume has it. The redirections stay: the caller gives them up. Holds SwapLock throughout.
void MergeSwapIntoVolume(PDEVICE_OBJECT device);
// `location`, of `length` bytes, becomes the record's; an earlier one is released. Takes SwapLock.
void PublishMapLocation(PVOLUME_EXTENSION volume, MAP_LOCATION_ENTRY* location, ULONG length);
// Releases MapLocation and forgets it. Takes SwapLock.
void ForgetMapLocation(PVOLUME_EXTENSION volume);
