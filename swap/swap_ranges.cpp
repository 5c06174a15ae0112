#include "swap/swap_ranges.h"
#include "swap/chunk_index.h"

namespace {

ULONG64 PackRange(LARGE_INTEGER swapOffset, ULONG length, ULONG unit) {
    return static_cast<ULONG64>(swapOffset.QuadPart / unit) << 32 | length / unit;
}

// One pass of a sort by first sector: a stable distribution by one byte of the key.
void DistributeByByte(const ULONG64* from, ULONG64* to, ULONG count, ULONG shift) {
    ULONG places[256] = {};
    for (ULONG i = 0; i < count; ++i) ++places[from[i] >> shift & 0xFF];
    ULONG next = 0;
    for (ULONG& place : places) next += std::exchange(place, next);
    for (ULONG i = 0; i < count; ++i) to[places[from[i] >> shift & 0xFF]++] = from[i];
}

// By the 32-bit sector, in time that no order of the entries, found or made, can stretch. Even in number, the
// passes end where they began.
void SortBySector(ULONG64* ranges, ULONG64* other, ULONG count) {
    for (ULONG shift = 32; shift < 64; shift += 16) {
        DistributeByByte(ranges, other, count, shift);
        DistributeByByte(other, ranges, count, shift + 8);
    }
}

ULONG PackRanges(PVOLUME_EXTENSION volume, SWAP_RANGES which, ULONG64* ranges) KVR_REQUIRES(volume->SwapLock) {
    const ULONG unit = volume->BytesPerSector;
    TREE* free = &volume->FreeChunks;
    ULONG count = 0;
    for (ChunkCursor chunk(volume); chunk; chunk.Next())
        ranges[count++] = PackRange(chunk->liSwapOffset, chunk->uLength, unit);
    if (which == SWAP_RANGES::Swapped) return count;
    for (TREE_NODE* node = tree_first(free, free->Root); node; node = tree_next(free, node)) {
        const auto* chunk = static_cast<const FREE_CHUNK*>(node->Record);
        ranges[count++] = PackRange(chunk->liSwapOffset, chunk->uLength, unit);
    }
    return count;
}

}  // namespace

PoolPtr<ULONG64> SortedSwapRanges(PVOLUME_EXTENSION volume, SWAP_RANGES which, ULONG count) {
    const SIZE_T bytes = SIZE_T{count} * sizeof(ULONG64);
    PoolPtr<ULONG64> ranges(static_cast<ULONG64*>(AllocatePool(bytes)));
    const PoolPtr<ULONG64> other(static_cast<ULONG64*>(AllocatePool(bytes)));
    if (!ranges || !other) return PoolPtr<ULONG64>();
    SortBySector(ranges.Get(), other.Get(), PackRanges(volume, which, ranges.Get()));
    return ranges;
}
