#include "client/storage_room.h"
#include <algorithm>

namespace ctl {

StorageRoom RoomOf(const FixedVolume& volume, std::uint64_t reserve) {
    // The driver's signed numbers, never taken for huge ones.
    const auto size = [](std::int64_t bytes) {
        return static_cast<std::uint64_t>(std::max<std::int64_t>(bytes, 0));
    };
    StorageRoom room;
    room.total = size(volume.swapTotal);
    room.used = std::min(size(volume.swapUsed), room.total);
    if (room.total == 0) return room;
    const std::uint64_t free = room.total - room.used;
    room.usable = free > reserve ? free - reserve : 0;
    const std::uint64_t most = room.used + room.usable;
    room.percent = kFullPercent;
    if (room.usable != 0)
        room.percent =
            std::min(kFullPercent - 1, static_cast<unsigned>(static_cast<long double>(room.used) * 100 / most));
    return room;
}

unsigned LevelOf(const StorageRoom& room) {
    for (const unsigned level : {kFullPercent, kNearlyFullPercent, kFillingPercent})
        if (room.percent >= level) return level;
    return 0;
}

}  // namespace ctl
