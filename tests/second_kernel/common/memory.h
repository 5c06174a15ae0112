// Memory and patterns for the stories. IRQL: PASSIVE_LEVEL.
#pragma once
#include "platform/kernel.h"

inline constexpr ULONG kKiB = 1024;
inline constexpr ULONG kMiB = 1024 * kKiB;

// Zeroed non-paged pool under the stories' own tag; null without memory.
PUCHAR AllocateStory(SIZE_T bytes);
void FreeStory(PVOID block);

// Owns bytes of non-paged pool, zeroed; a check fails when there are none.
class Bytes {
public:
    explicit Bytes(SIZE_T bytes);
    ~Bytes();
    Bytes(const Bytes&) = delete;
    Bytes& operator=(const Bytes&) = delete;
    [[nodiscard]] PUCHAR Get() const { return m_block; }
    explicit operator bool() const { return m_block != nullptr; }

private:
    PUCHAR m_block;
};

// The pattern of `seed`: every 8 bytes differ with their place, `offset` of it a multiple of 8.
void FillPattern(PUCHAR to, SIZE_T bytes, ULONGLONG offset, ULONG seed);
[[nodiscard]] bool IsSame(const UCHAR* a, const UCHAR* b, SIZE_T bytes);
[[nodiscard]] bool IsPattern(const UCHAR* bytes, SIZE_T length, ULONGLONG offset, ULONG seed);

// A repeatable sequence of numbers.
class Numbers {
public:
    explicit Numbers(ULONG seed) : m_state(seed * 2654435761u + 1) {}
    ULONG Below(ULONG limit);  // 0 to limit - 1

private:
    ULONGLONG m_state;
};
