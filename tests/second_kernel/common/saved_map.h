// The saved map of a volume as it lies on the medium, found by the location in the registry and read without
// the driver's help. IRQL: PASSIVE_LEVEL.
#pragma once
#include "formats/saved_map.h"
#include "tests/second_kernel/common/computer.h"

// The registry's value of that name; how many bytes of it there are, 0 when there is none. As much as fits is
// copied.
[[nodiscard]] ULONG ReadDriverValue(const WCHAR* name, PVOID buffer, ULONG length);

inline constexpr ULONG kMostRuns = 128;

struct SavedMap {
    ULONG Runs;
    MAP_LOCATION_ENTRY Location[kMostRuns];
    ULONGLONG LocationBytes;
    ULONG Swapped;  // entries
    ULONG Free;
    ULONGLONG SwappedBytes;
    ULONGLONG FreeBytes;
};
// A check fails for an entry with a wrong check byte, without sectors or outside the volume's storage files.
void ReadSavedMap(Computer* computer, SavedMap* map);
// Changes a bit of its first entry: it then redirects another place, which nothing but the check byte gives
// away.
void DamageSavedMap(Computer* computer);
