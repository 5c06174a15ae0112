// The saved map of a volume, read from the sectors where the registry says it lies: what was redirected, and
// where the swap space is, when the driver saved it last. Nothing of it is taken on trust.
#pragma once
#include <cstdint>
#include <string>
#include <vector>
#include "formats/saved_map.h"
#include "client/failure.h"
#include "tool/kvrctl/world.h"

namespace ctl {

// In sectors.
struct RedirectedRange {
    std::uint64_t volume, swap, length;
    bool operator==(const RedirectedRange&) const = default;
};
struct SectorRange {
    std::uint64_t first, length;
    bool operator==(const SectorRange&) const = default;
};

struct SavedMap {
    std::uint32_t sectorBytes = 0;
    std::uint64_t volumeSectors = 0;
    std::vector<RedirectedRange> redirected;  // ascending in the volume, none overlapping
    std::vector<SectorRange> free;            // swap space, ascending
    std::vector<SectorRange> file;            // where the map itself lies
    std::uint64_t slots = 0;                  // entries for which the map has room
};

// Where, in words. So it looks in the middle of a save as well.
class DamagedMap : public Failure {
public:
    using Failure::Failure;
};

// Throws DamagedMap, and Failure when there is no map.
SavedMap ReadSavedMap(World& world, const std::u16string& volume);

// As ReadSavedMap; waits for the end of a save that is under way.
SavedMap ReadWholeMap(World& world, Terminal& terminal, const std::u16string& volume);

// ---- what it tells ----
struct MapSummary {
    std::uint64_t redirectedSectors = 0;
    std::uint64_t freeSectors = 0;
    std::uint64_t ranges = 0;        // redirected, adjoining ones counted as one
    std::uint64_t largestRange = 0;  // sectors
    std::uint64_t pieces = 0;        // ... counted as one only where their data adjoins as well
    std::uint64_t freeRanges = 0;    // adjoining ones counted as one
    std::uint64_t largestFree = 0;   // sectors
    std::uint64_t entries = 0;
};
MapSummary Summarize(const SavedMap& map);
// Sectors of the storage, or of the map's own file, that hold redirected writes to something else: the file
// system whose changes these are has given the storage files' space to others.
std::uint64_t OverwrittenSectors(const SavedMap& map);
// Sectors of the storage, or of the map's own file, that lie in none of these ranges, given in sectors.
std::uint64_t SectorsOutside(const SavedMap& map, std::vector<SectorRange> files);

}  // namespace ctl
