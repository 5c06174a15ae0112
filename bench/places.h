// Requests to many places, in an order that is known.
#pragma once
#include <algorithm>
#include <memory>
#include <random>
#include <vector>
#include "bench/computer.h"
#include "bench/measure.h"

namespace bench {

using Offsets = std::shared_ptr<const std::vector<std::uint64_t>>;

// `count` places, `stride` bytes apart from `begin` on.
inline std::vector<std::uint64_t> Places(std::uint64_t begin, std::uint64_t stride, std::size_t count) {
    std::vector<std::uint64_t> offsets(count);
    for (std::size_t i = 0; i < count; ++i) offsets[i] = begin + i * stride;
    return offsets;
}

inline Offsets InOrder(std::vector<std::uint64_t> offsets) {
    return std::make_shared<const std::vector<std::uint64_t>>(std::move(offsets));
}

inline Offsets Shuffled(std::vector<std::uint64_t> offsets) {
    std::shuffle(offsets.begin(), offsets.end(), std::mt19937_64(1));
    return InOrder(std::move(offsets));
}

// The subject goes through the places from the first on, the floor from the middle on: the same pattern, but
// never data that the other one has just brought into the caches.
inline Operation FromStart(Computer& computer, PDEVICE_OBJECT device, UCHAR major, ULONG length,
                           Offsets offsets) {
    return [=, &computer](unsigned n) {
        computer.Transfer(device, major, (*offsets)[n % offsets->size()], length);
    };
}

inline Operation FromMiddle(Computer& computer, PDEVICE_OBJECT device, UCHAR major, ULONG length,
                            Offsets offsets) {
    return [=, &computer](unsigned n) {
        computer.Transfer(device, major, (*offsets)[(n + offsets->size() / 2) % offsets->size()], length);
    };
}

}  // namespace bench
