// The map at boot: where it lies (a registry value named after the volume), its loading at the first read, and
// the boot action: keep, give up, or merge once into the volume.
#pragma once
#include "swap/swap.h"

// `location` receives an array of the caller's (pool), `length` its bytes, which need not be whole entries.
// Else STATUS_INVALID_PARAMETER, null and 0.
[[nodiscard]] NTSTATUS RegGetMapLocation(PVOLUME_EXTENSION volume, MAP_LOCATION_ENTRY** location,
                                         ULONG* length);
[[nodiscard]] NTSTATUS RegSetMapLocation(PVOLUME_EXTENSION volume, const MAP_LOCATION_ENTRY* location,
                                         ULONG length);
[[nodiscard]] NTSTATUS RegDelMapLocation(PVOLUME_EXTENSION volume);
// After provisioning: the captured runs go to the registry and into MapLocation.
void PostloadSwapMap(PVOLUME_EXTENSION volume);
// Once per boot and volume. IRQL: PASSIVE_LEVEL.
[[nodiscard]] NTSTATUS PreloadSwapMap(PDEVICE_OBJECT device);
// Loads the map if it is due and not loaded; a request that comes during the load waits for its end.
void EnsureSwapMapLoaded(PVOLUME_EXTENSION volume);
void MergeSwapIntoVolume(PDEVICE_OBJECT device);
// `location`, of `length` bytes, becomes the record's; an earlier one is released. Takes SwapLock.
void PublishMapLocation(PVOLUME_EXTENSION volume, MAP_LOCATION_ENTRY* location, ULONG length);
// Releases MapLocation and forgets it. Takes SwapLock.
void ForgetMapLocation(PVOLUME_EXTENSION volume);
