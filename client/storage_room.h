// How much of a volume's storage writes can still use. Less than there is: the driver keeps the last of it.
#pragma once
#include <cstdint>
#include "client/control_client.h"
#include "formats/space_limits.h"

namespace ctl {

// From here on up it is told.
inline constexpr unsigned kFillingPercent = 80;
inline constexpr unsigned kNearlyFullPercent = 95;
inline constexpr unsigned kFullPercent = 100;

struct StorageRoom {
    std::uint64_t total = 0;  // bytes, as the others
    std::uint64_t used = 0;
    std::uint64_t usable = 0;  // until writes find no room
    unsigned percent = 0;      // of what can be used at all; 100 exactly when nothing is usable
};

// `reserve`: what stays out of the writers' reach, kLowSpaceLimit for programs with files, kNoSpaceLimit for
// clients, whose writes have no file's name. Storage of no size is neither full nor empty: percent 0.
StorageRoom RoomOf(const FixedVolume& volume, std::uint64_t reserve);

// 0, kFillingPercent, kNearlyFullPercent or kFullPercent: the highest that the room has reached.
unsigned LevelOf(const StorageRoom& room);

}  // namespace ctl
