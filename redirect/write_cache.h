// A first-in, first-out queue of writes that were accepted and not yet written to the swap, one per SWAP_FILE.
// An entry stays in the queue until its data is in the swap, so an empty queue means that nothing older is on
// its way. A CacheLock guards one list operation at a time, a FlushLock (taken before it) the writing of
// entries. IRQL: PASSIVE_LEVEL.
#pragma once
#include "redirect/write_order.h"
#include "swap/swap_file.h"

struct WRITE_CACHE_ENTRY {
    LARGE_INTEGER liVolumeOffset;
    PVOID pBuffer;  // private copy, owned by the entry
    ULONG uLength;
    PVOLUME_EXTENSION pVolume;
    LIST_ENTRY ListEntry;
};

// Queues the request's data and completes the request. A buffer that cannot be locked fails it with the
// exception's status, so does a status block of the caller that cannot be written (the data stays queued); one
// that cannot be mapped, or no pool, fails it with STATUS_INSUFFICIENT_RESOURCES. `place` is the request's; it
// is left when the data is queued, before the request is completed.
[[nodiscard]] NTSTATUS CacheWriteRequest(PVOLUME_EXTENSION volume, PIRP request, WritePlace* place);
// Queues a copy of `length` bytes of a kernel buffer for byte `offset` of the volume. STATUS_NO_SUCH_DEVICE for
// a volume without storage, STATUS_INSUFFICIENT_RESOURCES without pool.
[[nodiscard]] NTSTATUS AddBufferToCache(PVOLUME_EXTENSION volume, const LARGE_INTEGER* offset, PVOID buffer,
                                        ULONG length);
// Writes the queue out, entries of other volumes on the same storage included. The caller holds the volume's
// RemoveLock. STATUS_DEVICE_BUSY when it stopped for want of swap space; the queue then keeps its order.
[[nodiscard]] NTSTATUS FlushWriteCache(PVOLUME_EXTENSION volume);
// True for no storage. Takes no lock: who writes the queue out can rely on it, and who has a place among the
// writes, as to writes that had theirs before.
[[nodiscard]] BOOLEAN IsWriteCacheEmpty(SWAP_FILE* swapFile);
// Drops the entries of a volume that is being removed: nothing can write them any more. To be called when its
// RemoveLock has been released and waited for: a flush holds that lock while it writes the volume's entry.
void DropCachedWrites(PVOLUME_EXTENSION volume);
