// The swap's ranges in its own order, whatever the order of the volume; for swap/ only.
#pragma once
#include "platform/owners.h"
#include "swap/swap.h"

// A range in one word, so that ranges compare as numbers.
[[nodiscard]] inline ULONG64 FirstSectorOf(ULONG64 range) {
    return range >> 32;
}
[[nodiscard]] inline ULONG64 SectorsOf(ULONG64 range) {
    return range & 0xFFFFFFFF;
}

enum class SWAP_RANGES : UCHAR { Swapped, All };

// The space of the redirected ranges, or of all, by first sector. `count` is how many there are, not 0; the
// volume has started. Empty when there is no pool. Takes time in proportion, in whatever order they are found.
[[nodiscard]] PoolPtr<ULONG64> SortedSwapRanges(PVOLUME_EXTENSION volume, SWAP_RANGES which, ULONG count)
    KVR_REQUIRES(volume->SwapLock);
