// The runs of the saved map: where MapLocation says they lie; for swap/ only. SwapLock held.
#pragma once
#include "swap/map_format.h"
#include "swap/sector_io.h"

// Whole entries only: a value of odd length from the registry never leads past its end.
[[nodiscard]] inline ULONG MapRunCount(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    return volume->ulMapLocationLength / sizeof(MAP_LOCATION_ENTRY);
}

[[nodiscard]] inline const MAP_LOCATION_ENTRY* CurrentRun(PVOLUME_EXTENSION volume)
    KVR_REQUIRES(volume->SwapLock) {
    return volume->MapLocation.load() + volume->MapRunIndex;
}

[[nodiscard]] inline LONGLONG RunOffset(PVOLUME_EXTENSION volume, const MAP_LOCATION_ENTRY* run) {
    return static_cast<LONGLONG>(run->ulSector) * volume->BytesPerSector;
}
