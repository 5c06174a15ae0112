// The changes that a volume's saved map holds, as they lie on its disk. For looks from outside, while no driver
// uses the map.
#pragma once
#include <cstdint>
#include <vector>
#include "formats/saved_map.h"
#include "machine/disk/disk.h"

namespace nbd {

// Where a volume lies.
struct PlaceOnDisk {
    machine::Disk* disk;
    std::uint64_t offset;  // bytes
    std::uint64_t length;  // bytes
};

struct SavedChanges {
    std::vector<SWAP_MAP_ENTRY> entries;  // redirected ranges, in sectors of the volume
    bool isSound = true;                  // false: the map cannot be read, or not all of it makes sense

    std::uint64_t Sectors() const;
    // Adjoining entries counted as one.
    std::uint64_t Ranges() const;
};

// `location`: the registry's value that says where the map lies.
SavedChanges ReadSavedChanges(const PlaceOnDisk& place, const std::vector<std::uint8_t>& location);

// How much of the changes the volume itself does not hold: of each entry the first sector is looked at, which
// suffices for what is copied whole or not at all. A sector that cannot be read is missing.
SavedChanges ChangesNotIn(const PlaceOnDisk& place, const SavedChanges& changes);

}  // namespace nbd
