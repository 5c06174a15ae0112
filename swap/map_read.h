// What a whole map is asked when it has been read; for swap/ only.
#pragma once
#include "swap/swap.h"

// Does no space of the swap stand twice in the trees, whatever its kind? STATUS_INVALID_PARAMETER when some
// does, STATUS_INSUFFICIENT_RESOURCES when it could not be found out, for want of memory. `count` is the
// records of both trees. For the whole map, once: an index by swap offset that grows with every entry would
// cost more than this one pass.
[[nodiscard]] NTSTATUS VerifySwapRanges(PVOLUME_EXTENSION volume, ULONG count) KVR_REQUIRES(volume->SwapLock);
// Is a place of the storage itself, or of the saved map, redirected? Then the file system above has given the
// storage files' space to others: to copy these redirections to their places would overwrite the swap that the
// rest of them still lives in.
[[nodiscard]] bool IsStorageRedirected(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock);
