// Reading the saved map; for swap/ only. SwapLock held.
#pragma once
#include "swap/map_format.h"

// Reads `size` bytes of one run at `run` into the trees; results as DeserializeSwapMap.
[[nodiscard]] NTSTATUS ReadMapRun(PVOLUME_EXTENSION volume, UCHAR* run, ULONG size)
    KVR_REQUIRES(volume->SwapLock);
// Does no space of the swap stand twice in the trees, whatever its kind? STATUS_INVALID_PARAMETER when some
// does, STATUS_INSUFFICIENT_RESOURCES when it could not be found out. `count` is the records of both trees. For
// the whole map, once: an index by swap offset that grows with every entry would cost more than this one pass.
[[nodiscard]] NTSTATUS VerifySwapRanges(PVOLUME_EXTENSION volume, ULONG count) KVR_REQUIRES(volume->SwapLock);
