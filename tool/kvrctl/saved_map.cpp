#include "tool/kvrctl/saved_map.h"
#include <algorithm>
#include <cstring>
#include <span>
#include "tool/kvrctl/failure.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

constexpr std::uint32_t kCheckSeed = 0x4B56;
constexpr std::uint32_t kMostRead = 1024 * 1024;  // bytes at a time

[[noreturn]] void Damaged(const std::string& what) {
    throw Failure("the saved map is damaged: " + what);
}

std::uint64_t LengthOf(const MapEntryRecord& entry) {
    return entry.sectors[0] | std::uint64_t{entry.sectors[1]} << 8 | std::uint64_t{entry.sectors[2]} << 16;
}

bool IsEmpty(const MapEntryRecord& entry) {
    return entry.swapSector == 0 || entry.swapSector == entry.volumeSector;
}

class MapReader {
public:
    MapReader(World& world, const std::u16string& volume, const VolumeFacts& facts)
        : world_(world), volume_(volume) {
        map_.sectorBytes = facts.sectorBytes;
        map_.volumeSectors = facts.bytes / facts.sectorBytes;
    }

    SavedMap Read(const Bytes& location) {
        for (const MapRunRecord& run : RunsOf(location)) AddRun(run);
        for (const SectorRange& run : map_.file) {
            if (!ReadRun(run)) break;
        }
        Order();
        return std::move(map_);
    }

private:
    // A run without room for an entry ends the map, for the driver as well.
    std::vector<MapRunRecord> RunsOf(const Bytes& location) const {
        if (location.size() % sizeof(MapRunRecord) != 0)
            Damaged("the registry's value has a length that is none");
        std::vector<MapRunRecord> runs(location.size() / sizeof(MapRunRecord));
        if (!runs.empty()) std::memcpy(runs.data(), location.data(), location.size());
        const auto end = std::find_if(runs.begin(), runs.end(), [](const MapRunRecord& run) {
            return run.sector == 0 || run.length < sizeof(MapEntryRecord);
        });
        runs.erase(end, runs.end());
        return runs;
    }

    void AddRun(const MapRunRecord& run) {
        const std::uint64_t length = (std::uint64_t{run.length} + map_.sectorBytes - 1) / map_.sectorBytes;
        RequireInside(run.sector, length, "a run of its file");
        fileSectors_ += length;
        if (fileSectors_ > map_.volumeSectors) Damaged("its file is larger than the volume");
        map_.file.push_back({run.sector, length});
        lengths_.push_back(run.length);
    }

    // False when the run holds no entry, which ends the map.
    bool ReadRun(const SectorRange& run) {
        const std::uint32_t length = lengths_[run_++];
        const Bytes bytes = ReadBytes(run, length);
        const std::size_t slots = length / sizeof(MapEntryRecord);
        map_.slots += slots;
        const std::size_t before = entries_;
        for (std::size_t i = 0; i < slots; ++i) {
            MapEntryRecord entry;
            std::memcpy(&entry, bytes.data() + i * sizeof entry, sizeof entry);
            if (!IsEmpty(entry)) AddEntry(entry, run.first * map_.sectorBytes + i * sizeof entry);
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

    void AddEntry(const MapEntryRecord& entry, std::uint64_t offset) {
        const std::string where = "the entry at byte " + std::to_string(offset);
        const std::uint64_t length = LengthOf(entry);
        if (MapCheck(entry) != entry.check) Damaged(where + " fails its check");
        if (length == 0) Damaged(where + " has no sectors");
        RequireInside(entry.swapSector, length, where);
        ++entries_;
        if (entry.volumeSector == kFreeMark) {
            map_.free.push_back({entry.swapSector, length});
            return;
        }
        RequireInside(entry.volumeSector, length, where);
        map_.redirected.push_back({entry.volumeSector, entry.swapSector, length});
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

std::uint8_t MapCheck(const MapEntryRecord& entry) {
    std::uint8_t bytes[sizeof entry];
    std::memcpy(bytes, &entry, sizeof entry);
    std::uint32_t sum = kCheckSeed;
    for (std::uint32_t i = 0; i + 1 < sizeof entry; ++i) sum += (i + 1) * bytes[i];
    return static_cast<std::uint8_t>((sum & 0xFF) ^ ((sum >> 8) & 0xFF));
}

SavedMap ReadSavedMap(World& world, const std::u16string& volume) {
    const std::optional<VolumeFacts> facts = world.Facts(volume);
    if (!facts || facts->sectorBytes == 0 || facts->sectorBytes > kMostRead)
        throw Failure("the machine does not describe " + ToUtf8(volume));
    if (facts->bytes / facts->sectorBytes > kFreeMark)
        throw Failure(ToUtf8(volume) + " has more sectors than a saved map can name");
    const std::optional<Bytes> location = world.ReadRegistry(volume);
    if (!location || location->empty())
        throw Failure(ToUtf8(volume) +
                      " has no saved map: it has no swap storage ('kvrctl swap make' makes it)");
    return MapReader(world, volume, *facts).Read(*location);
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
