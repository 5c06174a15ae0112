// What a whole map is asked when it has been read; for swap/ only.
#pragma once
#include "swap/swap.h"

// Does no space of the swap stand twice in the trees, whatever its kind? STATUS_INVALID_PARAMETER when some
// does, STATUS_INSUFFICIENT_RESOURCES when it could not be found out, for want of memory. `count` is the
// records of both trees. For the whole map, once: an index by swap offset that grows with every entry would
// cost more than this one pass.
[[nodiscard]] NTSTATUS VerifySwapRanges(PVOLUME_EXTENSION volume, ULONG count) KVR_REQUIRES(volume->SwapLock);
