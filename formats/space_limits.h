// How much of a volume's swap storage must be free for what. For the driver, and for whoever says how full a
// storage is.
#pragma once
#include <cstdint>

inline constexpr std::uint64_t kLowSpaceLimit =
    0x3000000;                                            // below it only metadata and unnamed writes get space
inline constexpr std::uint64_t kNoSpaceLimit = 0x800000;  // below it nothing does
// The low-space limit and some room above it: what a merge must have.
inline constexpr std::uint64_t kMergeSpaceLimit = 0x3300000;
