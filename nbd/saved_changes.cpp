#include "nbd/saved_changes.h"
#include <cstring>
#include <utility>

namespace nbd {
namespace {

class Reading {
public:
    explicit Reading(const PlaceOnDisk& place) : place_(place), sector_(place.disk->SectorSize()) {}

    SavedChanges Run(const std::vector<std::uint8_t>& location) {
        const std::size_t runs = location.size() / sizeof(MAP_LOCATION_ENTRY);
        for (std::size_t i = 0; i < runs && changes_.isSound; ++i) {
            MAP_LOCATION_ENTRY run;
            std::memcpy(&run, location.data() + i * sizeof run, sizeof run);
            if (!IsUsableRun(&run) || !ReadRun(run)) break;
        }
        return std::move(changes_);
    }

private:
    // False when the run ends the map.
    bool ReadRun(const MAP_LOCATION_ENTRY& run) {
        const std::uint64_t offset = std::uint64_t{run.ulSector} * sector_;
        const std::uint64_t length = (std::uint64_t{run.ulLength} + sector_ - 1) / sector_ * sector_;
        changes_.isSound = offset <= place_.length && length <= place_.length - offset;
        if (!changes_.isSound) return false;
        std::vector<std::uint8_t> bytes(length);
        changes_.isSound = NT_SUCCESS(place_.disk->Read(place_.offset + offset, bytes.data(), bytes.size()));
        return changes_.isSound && TakeEntries(bytes, run.ulLength / sizeof(SWAP_MAP_ENTRY));
    }

    bool TakeEntries(const std::vector<std::uint8_t>& bytes, std::size_t slots) {
        bool any = false;
        for (std::size_t i = 0; i < slots && changes_.isSound; ++i) {
            SWAP_MAP_ENTRY entry;
            std::memcpy(&entry, bytes.data() + i * sizeof entry, sizeof entry);
            if (IsEmptySlot(&entry)) continue;
            any = true;
            changes_.isSound = VerifyMapEntry(&entry) && IsInside(entry);
            if (!IsFreeEntry(&entry)) changes_.entries.push_back(entry);
        }
        return any;
    }

    bool IsInside(const SWAP_MAP_ENTRY& entry) const {
        const std::uint64_t sectors = place_.length / sector_;
        const auto inside = [&](std::uint64_t first) {
            return first < sectors && entry.ulSectors <= sectors - first;
        };
        return inside(entry.ulSwapSector) && (IsFreeEntry(&entry) || inside(entry.ulVolumeSector));
    }

    const PlaceOnDisk& place_;
    const std::uint64_t sector_;
    SavedChanges changes_;
};

}  // namespace

std::uint64_t SavedChanges::Sectors() const {
    std::uint64_t sectors = 0;
    for (const SWAP_MAP_ENTRY& entry : entries) sectors += entry.ulSectors;
    return sectors;
}

std::uint64_t SavedChanges::Ranges() const {
    std::uint64_t ranges = 0, end = 0;
    for (const SWAP_MAP_ENTRY& entry : entries) {
        if (ranges == 0 || entry.ulVolumeSector != end) ++ranges;
        end = std::uint64_t{entry.ulVolumeSector} + entry.ulSectors;
    }
    return ranges;
}

SavedChanges ReadSavedChanges(const PlaceOnDisk& place, const std::vector<std::uint8_t>& location) {
    return Reading(place).Run(location);
}

SavedChanges ChangesNotIn(const PlaceOnDisk& place, const SavedChanges& changes) {
    const std::uint64_t sector = place.disk->SectorSize();
    std::vector<std::uint8_t> swap(sector), volume(sector);
    const auto read = [&](std::uint64_t number, std::vector<std::uint8_t>& bytes) {
        return NT_SUCCESS(place.disk->Read(place.offset + number * sector, bytes.data(), bytes.size()));
    };
    SavedChanges missing;
    for (const SWAP_MAP_ENTRY& entry : changes.entries) {
        const bool same =
            read(entry.ulSwapSector, swap) && read(entry.ulVolumeSector, volume) && swap == volume;
        if (!same) missing.entries.push_back(entry);
    }
    return missing;
}

}  // namespace nbd
