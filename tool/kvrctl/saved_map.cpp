#include "tool/kvrctl/saved_map.h"
#include <algorithm>
#include <cstring>
#include <span>
#include "client/failure.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

constexpr std::uint32_t kMostRead = 1024 * 1024;  // bytes at a time
constexpr int kLooks = 20;
constexpr std::chrono::milliseconds kBetweenLooks{100};

[[noreturn]] void Damaged(const std::string& what) {
    throw DamagedMap("the saved map is damaged: " + what);
}

class MapReader {
public:
    MapReader(World& world, const std::u16string& volume, const VolumeFacts& facts)
        : world_(world), volume_(volume) {
        map_.sectorBytes = facts.sectorBytes;
        map_.volumeSectors = facts.bytes / facts.sectorBytes;
    }

    SavedMap Read(const Bytes& location) {
        for (const MAP_LOCATION_ENTRY& run : RunsOf(location)) AddRun(run);
        for (const SectorRange& run : map_.file) {
            if (!ReadRun(run)) break;
        }
        Order();
        return std::move(map_);
    }

private:
    // A run without room for an entry ends the map, for the driver as well.
    std::vector<MAP_LOCATION_ENTRY> RunsOf(const Bytes& location) const {
        if (location.size() % sizeof(MAP_LOCATION_ENTRY) != 0)
            Damaged("the registry's value has a length that is none");
        std::vector<MAP_LOCATION_ENTRY> runs(location.size() / sizeof(MAP_LOCATION_ENTRY));
        if (!runs.empty()) std::memcpy(runs.data(), location.data(), location.size());
        const auto end = std::find_if(runs.begin(), runs.end(),
                                      [](const MAP_LOCATION_ENTRY& run) { return !IsUsableRun(&run); });
        runs.erase(end, runs.end());
        return runs;
    }

    void AddRun(const MAP_LOCATION_ENTRY& run) {
        const std::uint64_t length = (std::uint64_t{run.ulLength} + map_.sectorBytes - 1) / map_.sectorBytes;
        RequireInside(run.ulSector, length, "a run of its file");
        fileSectors_ += length;
        if (fileSectors_ > map_.volumeSectors) Damaged("its file is larger than the volume");
        map_.file.push_back({run.ulSector, length});
        lengths_.push_back(run.ulLength);
    }

    // False when the run holds no entry, which ends the map.
    bool ReadRun(const SectorRange& run) {
        const std::uint32_t length = lengths_[run_++];
        const Bytes bytes = ReadBytes(run, length);
        const std::size_t slots = length / sizeof(SWAP_MAP_ENTRY);
        map_.slots += slots;
        const std::size_t before = entries_;
        for (std::size_t i = 0; i < slots; ++i) {
            SWAP_MAP_ENTRY entry;
            std::memcpy(&entry, bytes.data() + i * sizeof entry, sizeof entry);
            if (!IsEmptySlot(&entry)) AddEntry(entry, run.first * map_.sectorBytes + i * sizeof entry);
        }
        return entries_ != before;
    }

    Bytes ReadBytes(const SectorRange& run, std::uint32_t length) {
        Bytes bytes;
        const std::uint64_t end = (run.first + run.length) * map_.sectorBytes;
        const std::uint32_t most = kMostRead / map_.sectorBytes * map_.sectorBytes;
        for (std::uint64_t at = run.first * map_.sectorBytes; at < end;) {
            const auto part = static_cast<std::uint32_t>(std::min<std::uint64_t>(end - at, most));
            const Bytes read = world_.ReadSectors(volume_, at, part);
            bytes.insert(bytes.end(), read.begin(), read.end());
            at += part;
        }
        if (bytes.size() < length) throw Failure("the sectors of the saved map cannot be read");
        return bytes;
    }

    void AddEntry(const SWAP_MAP_ENTRY& entry, std::uint64_t offset) {
        const std::string where = "the entry at byte " + std::to_string(offset);
        const std::uint64_t length = entry.ulSectors;
        if (!VerifyMapEntry(&entry)) Damaged(where + " fails its check");
        if (length == 0) Damaged(where + " has no sectors");
        RequireInside(entry.ulSwapSector, length, where);
        ++entries_;
        if (IsFreeEntry(&entry)) {
            map_.free.push_back({entry.ulSwapSector, length});
            return;
        }
        RequireInside(entry.ulVolumeSector, length, where);
        map_.redirected.push_back({entry.ulVolumeSector, entry.ulSwapSector, length});
    }

    void RequireInside(std::uint64_t first, std::uint64_t length, const std::string& what) const {
        if (first > map_.volumeSectors || length > map_.volumeSectors - first)
            Damaged(what + " lies beyond the volume's end");
    }

    // Sorts, and finds what is there twice.
    void Order() {
        std::sort(map_.redirected.begin(), map_.redirected.end(),
                  [](const RedirectedRange& a, const RedirectedRange& b) { return a.volume < b.volume; });
        std::sort(map_.free.begin(), map_.free.end(),
                  [](const SectorRange& a, const SectorRange& b) { return a.first < b.first; });
        std::vector<SectorRange> volume, swap = map_.free;
        for (const RedirectedRange& range : map_.redirected) {
            volume.push_back({range.volume, range.length});
            swap.push_back({range.swap, range.length});
        }
        RequireDisjoint(std::move(volume), "a range is redirected twice");
        RequireDisjoint(std::move(swap), "a part of the swap space is used twice");
    }

    static void RequireDisjoint(std::vector<SectorRange> ranges, const char* otherwise) {
        std::sort(ranges.begin(), ranges.end(),
                  [](const SectorRange& a, const SectorRange& b) { return a.first < b.first; });
        for (std::size_t i = 1; i < ranges.size(); ++i)
            if (ranges[i - 1].first + ranges[i - 1].length > ranges[i].first) Damaged(otherwise);
    }

    World& world_;
    const std::u16string& volume_;
    SavedMap map_;
    std::vector<std::uint32_t> lengths_;  // of the runs, in bytes
    std::size_t run_ = 0, entries_ = 0;
    std::uint64_t fileSectors_ = 0;
};

// Calls `end` with the length of each row of elements in which every one `adjoins` the one before it.
template <class Range, class Adjoins, class End>
void ForEachRow(const std::vector<Range>& ranges, const Adjoins& adjoins, const End& end) {
    std::uint64_t length = 0;
    for (std::size_t i = 0; i < ranges.size(); ++i) {
        length += ranges[i].length;
        if (i + 1 < ranges.size() && adjoins(ranges[i], ranges[i + 1])) continue;
        end(length);
        length = 0;
    }
}

}  // namespace

SavedMap ReadSavedMap(World& world, const std::u16string& volume) {
    const std::optional<VolumeFacts> facts = world.Facts(volume);
    if (!facts || facts->sectorBytes == 0 || facts->sectorBytes > kMostRead)
        throw Failure("the machine does not describe " + ToUtf8(volume));
    if (facts->bytes / facts->sectorBytes > kFreeSpaceMark)
        throw Failure(ToUtf8(volume) + " has more sectors than a saved map can name");
    const std::optional<Bytes> location = world.ReadRegistry(volume);
    if (!location || location->empty())
        throw Failure(ToUtf8(volume) +
                      " has no saved map: it has no swap storage ('kvrctl swap make' makes it)");
    return MapReader(world, volume, *facts).Read(*location);
}

// The driver makes its map unusable for the moment in which it writes it anew.
SavedMap ReadWholeMap(World& world, Terminal& terminal, const std::u16string& volume) {
    for (int left = kLooks;; --left) {
        try {
            return ReadSavedMap(world, volume);
        } catch (const DamagedMap&) {
            if (left == 1 || !terminal.Pause(kBetweenLooks)) throw;
        }
    }
}

namespace {

void Sort(std::vector<SectorRange>& ranges) {
    std::sort(ranges.begin(), ranges.end(),
              [](const SectorRange& a, const SectorRange& b) { return a.first < b.first; });
}

// Ascending, and what stands twice once.
std::vector<SectorRange> Joined(std::vector<SectorRange> ranges) {
    Sort(ranges);
    std::vector<SectorRange> joined;
    for (const SectorRange& range : ranges) {
        const std::uint64_t end = range.first + range.length;
        const std::uint64_t before = joined.empty() ? 0 : joined.back().first + joined.back().length;
        if (joined.empty() || before < range.first)
            joined.push_back(range);
        else
            joined.back().length = std::max(before, end) - joined.back().first;
    }
    return joined;
}

// All that the storage has, its map's file as well, ascending.
std::vector<SectorRange> StorageOf(const SavedMap& map) {
    std::vector<SectorRange> storage = map.free;
    storage.insert(storage.end(), map.file.begin(), map.file.end());
    for (const RedirectedRange& range : map.redirected) storage.push_back({range.swap, range.length});
    Sort(storage);
    return storage;
}

// Sectors that stand in both; each is ascending.
std::uint64_t CommonSectors(const std::vector<SectorRange>& one, const std::vector<SectorRange>& other) {
    std::uint64_t sectors = 0;
    auto at = other.begin();
    for (const SectorRange& range : one) {
        const std::uint64_t end = range.first + range.length;
        while (at != other.end() && at->first + at->length <= range.first) ++at;
        for (auto same = at; same != other.end() && same->first < end; ++same)
            sectors += std::min(end, same->first + same->length) - std::max(range.first, same->first);
    }
    return sectors;
}

}  // namespace

std::uint64_t OverwrittenSectors(const SavedMap& map) {
    std::vector<SectorRange> targets;
    for (const RedirectedRange& range : map.redirected) targets.push_back({range.volume, range.length});
    return CommonSectors(targets, StorageOf(map));
}

std::uint64_t SectorsOutside(const SavedMap& map, std::vector<SectorRange> files) {
    const std::vector<SectorRange> storage = StorageOf(map);
    std::uint64_t sectors = 0;
    for (const SectorRange& range : storage) sectors += range.length;
    return sectors - CommonSectors(storage, Joined(std::move(files)));
}

MapSummary Summarize(const SavedMap& map) {
    MapSummary summary;
    summary.entries = map.redirected.size() + map.free.size();
    const auto adjoins = [](const RedirectedRange& a, const RedirectedRange& b) {
        return a.volume + a.length == b.volume;
    };
    ForEachRow(map.redirected, adjoins, [&](std::uint64_t length) {
        summary.redirectedSectors += length;
        summary.largestRange = std::max(summary.largestRange, length);
        ++summary.ranges;
    });
    ForEachRow(
        map.redirected,
        [&](const RedirectedRange& a, const RedirectedRange& b) {
            return adjoins(a, b) && a.swap + a.length == b.swap;
        },
        [&](std::uint64_t) { ++summary.pieces; });
    ForEachRow(
        map.free, [](const SectorRange& a, const SectorRange& b) { return a.first + a.length == b.first; },
        [&](std::uint64_t length) {
            summary.freeSectors += length;
            summary.largestFree = std::max(summary.largestFree, length);
            ++summary.freeRanges;
        });
    return summary;
}

}  // namespace ctl
