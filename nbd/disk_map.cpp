#include "nbd/disk_map.h"
#include <algorithm>
#include <utility>

namespace nbd {

DiskMap::DiskMap(std::vector<VolumePlace> places) : places_(std::move(places)) {
    std::sort(places_.begin(), places_.end(), [](const auto& a, const auto& b) { return a.offset < b.offset; });
}

Piece DiskMap::First(std::uint64_t offset, std::uint64_t length, std::uint64_t most) const {
    const auto after = std::upper_bound(places_.begin(), places_.end(), offset,
                                        [](std::uint64_t at, const auto& place) { return at < place.offset; });
    length = std::min(length, most);
    if (after != places_.begin()) {
        const VolumePlace& place = *(after - 1);
        const std::uint64_t inside = offset - place.offset;
        if (inside < place.length) return {&place, offset, std::min(length, place.length - inside)};
    }
    if (after != places_.end()) length = std::min(length, after->offset - offset);
    return {nullptr, offset, length};
}

const VolumePlace* DiskMap::Find(unsigned number) const {
    const auto found = std::find_if(places_.begin(), places_.end(),
                                    [number](const auto& place) { return place.number == number; });
    return found == places_.end() ? nullptr : &*found;
}

}  // namespace nbd
