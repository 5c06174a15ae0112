#include "tests/second_kernel/common/memory.h"
#include "tests/second_kernel/stage.h"

namespace {

constexpr ULONG kStoryTag = 0x59524F54;  // TORY, in memory order

ULONGLONG PatternWord(ULONGLONG offset, ULONG seed) {
    ULONGLONG word = (offset / 8 + 1) * 0x9E3779B97F4A7C15ull + seed * 0xD1B54A32D192ED03ull;
    word ^= word >> 29;
    return word * 0xBF58476D1CE4E5B9ull;
}

}  // namespace

PUCHAR AllocateStory(SIZE_T bytes) {
    const stage::OwnWork own;
    auto* block = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, bytes, kStoryTag));
    if (block) RtlZeroMemory(block, bytes);
    return block;
}

void FreeStory(PVOID block) {
    if (block) ExFreePoolWithTag(block, kStoryTag);
}

Bytes::Bytes(SIZE_T bytes) : m_block(AllocateStory(bytes)) {
    stage::Check(m_block != nullptr, "memory for the story", 0, bytes);
}

Bytes::~Bytes() {
    FreeStory(m_block);
}

void FillPattern(PUCHAR to, SIZE_T bytes, ULONGLONG offset, ULONG seed) {
    for (SIZE_T i = 0; i + 8 <= bytes; i += 8) {
        const ULONGLONG word = PatternWord(offset + i, seed);
        RtlCopyMemory(to + i, &word, sizeof(word));
    }
}

bool IsSame(const UCHAR* a, const UCHAR* b, SIZE_T bytes) {
    return RtlCompareMemory(a, b, bytes) == bytes;
}

bool IsPattern(const UCHAR* bytes, SIZE_T length, ULONGLONG offset, ULONG seed) {
    for (SIZE_T i = 0; i + 8 <= length; i += 8) {
        const ULONGLONG word = PatternWord(offset + i, seed);
        if (!IsSame(bytes + i, reinterpret_cast<const UCHAR*>(&word), sizeof(word))) return false;
    }
    return true;
}

ULONG Numbers::Below(ULONG limit) {
    m_state = m_state * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<ULONG>(m_state >> 33) % limit;
}
