// A first-in, first-out queue of writes that were accepted and not yet written to the swap, one per SWAP_FILE.
// IRQL: PASSIVE_LEVEL.
#pragma once
#include "redirect/swap_file.h"

struct WRITE_CACHE_ENTRY {
    LARGE_INTEGER liVolumeOffset;
    PVOID pBuffer;  // private copy, owned by the entry
    ULONG uLength;
    PVOLUME_EXTENSION pVolume;
    LIST_ENTRY ListEntry;
};

// Queues the request's data and completes the request.
[[nodiscard]] NTSTATUS CacheWriteRequest(PVOLUME_EXTENSION volume, PIRP request);
[[nodiscard]] NTSTATUS AddBufferToCache(PVOLUME_EXTENSION volume, const LARGE_INTEGER* offset, PVOID buffer,
                                        ULONG length);
// STATUS_DEVICE_BUSY when it stopped for want of swap space; the queue then keeps its order.
[[nodiscard]] NTSTATUS FlushWriteCache(PVOLUME_EXTENSION volume);
[[nodiscard]] BOOLEAN IsWriteCacheEmpty(SWAP_FILE* swapFile);
// Drops the entries of a volume that is being removed: nothing can write them any more.
void DropCachedWrites(PVOLUME_EXTENSION volume);
