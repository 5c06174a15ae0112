// Bytes that a story writes and finds again.
#pragma once
#include <cstring>
#include <vector>
#include "platform/kernel.h"

inline constexpr ULONG kKiB = 1024;
inline constexpr ULONG kMiB = 1024 * kKiB;

using Bytes = std::vector<UCHAR>;

// The pattern of `seed`: every 8 bytes differ with their place, `offset` of it a multiple of 8.
inline ULONGLONG PatternWord(ULONGLONG offset, ULONG seed) {
    ULONGLONG word = (offset / 8 + 1) * 0x9E3779B97F4A7C15ull + seed * 0xD1B54A32D192ED03ull;
    word ^= word >> 29;
    return word * 0xBF58476D1CE4E5B9ull;
}

inline void FillPattern(PUCHAR to, SIZE_T bytes, ULONGLONG offset, ULONG seed) {
    for (SIZE_T i = 0; i + 8 <= bytes; i += 8) {
        const ULONGLONG word = PatternWord(offset + i, seed);
        std::memcpy(to + i, &word, sizeof(word));
    }
}

[[nodiscard]] inline bool IsSame(const UCHAR* a, const UCHAR* b, SIZE_T bytes) {
    return std::memcmp(a, b, bytes) == 0;
}
