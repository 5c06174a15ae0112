// The saved map of the data volume as it lies on the medium, found by the location in the registry and read
// without the driver's help.
#pragma once
#include <vector>
#include "formats/saved_map.h"
#include "tests/second_kernel/common/computer.h"

// What the registry holds for the data volume; nothing when there is no map.
[[nodiscard]] std::vector<MAP_LOCATION_ENTRY> ReadMapLocation();

struct SavedMap {
    ULONG Swapped = 0;  // entries
    ULONG Free = 0;
    ULONGLONG SwappedBytes = 0;
    ULONGLONG FreeBytes = 0;
};
// A check fails for an entry with a wrong check byte, without sectors or outside the volume's storage files.
[[nodiscard]] SavedMap ReadSavedMap(Computer* computer);
// Changes a bit of its first entry: it then redirects another place, which nothing but the check byte gives
// away.
void DamageSavedMap(Computer* computer);
