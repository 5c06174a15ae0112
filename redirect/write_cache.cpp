#include "redirect/write_cache.h"
#include "driver/record/requests.h"
#include "platform/checked_list.h"
#include "redirect/request_io.h"

namespace {

WRITE_CACHE_ENTRY* EntryOf(PLIST_ENTRY link) {
    return CONTAINING_RECORD(link, WRITE_CACHE_ENTRY, ListEntry);
}

// Queues `data`, which the entry owns from then on; on failure it stays the caller's.
NTSTATUS Enqueue(PVOLUME_EXTENSION volume, LARGE_INTEGER offset, PoolPtr<UCHAR>& data, ULONG length) {
    SWAP_FILE* swapFile = volume->SwapFile;
    if (!swapFile) return STATUS_NO_SUCH_DEVICE;
    WRITE_CACHE_ENTRY* entry = NewRecord<WRITE_CACHE_ENTRY>().Release();
    if (!entry) return STATUS_INSUFFICIENT_RESOURCES;
    entry->pBuffer = data.Release();
    entry->pVolume = volume;
    entry->liVolumeOffset = offset;
    entry->uLength = length;
    KernelMutexLock lock(swapFile->CacheLock);
    LinkAtTail(&swapFile->CacheList, &entry->ListEntry);
    ++swapFile->CachedWrites;
    return STATUS_SUCCESS;
}

// The entry is out of the queue, or is taken out here, and nobody else uses it.
void FreeEntry(WRITE_CACHE_ENTRY* entry) {
    FreePool(entry->pBuffer);
    FreePool(entry);
}

// Its data is in the swap, or nobody can write it any more.
void TakeOut(SWAP_FILE* swapFile, WRITE_CACHE_ENTRY* entry) KVR_REQUIRES(swapFile->CacheLock) {
    Unlink(&entry->ListEntry);
    --swapFile->CachedWrites;
}

// An entry of another volume is written under that volume's RemoveLock. While the entry is in the queue the
// record exists, since removal drops the entries before it deletes the record; the lock is therefore taken
// while CacheLock keeps the entry there. FALSE when that volume is being removed.
BOOLEAN HoldEntryVolume(SWAP_FILE* swapFile, PVOLUME_EXTENSION volume, WRITE_CACHE_ENTRY** entry,
                        RecordHold* hold) {
    KernelMutexLock lock(swapFile->CacheLock);
    *entry = IsListEmpty(&swapFile->CacheList) ? nullptr : EntryOf(swapFile->CacheList.Flink);
    if (!*entry || (*entry)->pVolume == volume) return TRUE;
    *hold = RecordHold((*entry)->pVolume, *entry);
    return !hold->Failed();
}

void RemoveEntry(SWAP_FILE* swapFile, WRITE_CACHE_ENTRY* entry) {
    {
        KernelMutexLock lock(swapFile->CacheLock);
        TakeOut(swapFile, entry);
    }
    FreeEntry(entry);
}

enum class FLUSH_STEP { Written, Empty, NoSpace, VolumeLeaves };

// Writes the oldest entry.
FLUSH_STEP FlushOldest(SWAP_FILE* swapFile, PVOLUME_EXTENSION volume) KVR_REQUIRES(swapFile->FlushLock) {
    WRITE_CACHE_ENTRY* entry = nullptr;
    RecordHold hold;
    if (!HoldEntryVolume(swapFile, volume, &entry, &hold)) return FLUSH_STEP::VolumeLeaves;
    if (!entry) return FLUSH_STEP::Empty;
    if (entry->uLength > swapFile->ulFreeBytes) return FLUSH_STEP::NoSpace;
    KVR_DISCARD(WriteSectorsFromBuffer(entry->pVolume, entry->pBuffer, entry->uLength, &entry->liVolumeOffset),
                "the write was accepted long ago: there is nobody left to tell");
    RemoveEntry(swapFile, entry);
    return FLUSH_STEP::Written;
}

// Takes the volume's entries out of one queue, one at a time.
WRITE_CACHE_ENTRY* UnlinkEntryOf(SWAP_FILE* swapFile, PVOLUME_EXTENSION volume) {
    KernelMutexLock lock(swapFile->CacheLock);
    for (PLIST_ENTRY link = swapFile->CacheList.Flink; link != &swapFile->CacheList; link = link->Flink) {
        WRITE_CACHE_ENTRY* entry = EntryOf(link);
        if (entry->pVolume != volume) continue;
        TakeOut(swapFile, entry);
        return entry;
    }
    return nullptr;
}

// What CacheWriteRequest has in hand while an exception may come.
struct CACHING {
    RequestPages Pages;
    PoolPtr<UCHAR> Data;  // until it is queued
};

NTSTATUS TakeData(PVOLUME_EXTENSION volume, PIRP request, CACHING* caching) {
    const auto& write = IoGetCurrentIrpStackLocation(request)->Parameters.Write;
    caching->Data = NewBuffer(write.Length);
    if (!caching->Data) return STATUS_INSUFFICIENT_RESOURCES;
    caching->Pages.Lock(request);
    const PVOID mapped = caching->Pages.Map(request);
    if (!mapped) return STATUS_INSUFFICIENT_RESOURCES;
    RtlCopyMemory(caching->Data.Get(), mapped, write.Length);
    return Enqueue(volume, write.ByteOffset, caching->Data, write.Length);
}

// The caller's own status block is memory that may be gone: what touching it raises is the request's status.
NTSTATUS TellCaller(PIRP request, NTSTATUS status, ULONG_PTR taken) {
    if (!request->UserIosb) return status;
    return TryExcept([&] {
        request->UserIosb->Status = status;
        request->UserIosb->Information = taken;
        return status;
    });
}

}  // namespace

NTSTATUS CacheWriteRequest(PVOLUME_EXTENSION volume, PIRP request, WritePlace* place) {
    const ULONG length = IoGetCurrentIrpStackLocation(request)->Parameters.Write.Length;
    CACHING caching;
    // Page locking may raise. The exception ends here, as the request's status: whoever called holds the
    // record.
    NTSTATUS status =
        RunWithCleanup([&] { return length == 0 ? STATUS_SUCCESS : TakeData(volume, request, &caching); },
                       [&] {
                           caching.Pages.Unlock();
                           caching.Data.Reset();
                       });
    place->Leave();
    status = TellCaller(request, status, BytesOf(status, length));
    return CompleteRequest(request, status, BytesOf(status, length));
}

NTSTATUS AddBufferToCache(PVOLUME_EXTENSION volume, const LARGE_INTEGER* offset, PVOID buffer, ULONG length) {
    DbgPrint("Kvr!AddBufferToCache() enter(%d)\n", KeGetCurrentIrql());
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    PoolPtr<UCHAR> data = NewBuffer(length);
    if (data) {
        RtlCopyMemory(data.Get(), buffer, length);
        status = Enqueue(volume, *offset, data, length);
    }
    DbgPrint("Kvr!AddBufferToCache() leave(%d)\n", KeGetCurrentIrql());
    return status;
}

NTSTATUS FlushWriteCache(PVOLUME_EXTENSION volume) {
    SWAP_FILE* swapFile = volume->SwapFile;
    if (IsWriteCacheEmpty(swapFile)) return STATUS_SUCCESS;
    KernelMutexLock lock(swapFile->FlushLock);
    for (;;) {
        switch (FlushOldest(swapFile, volume)) {
            case FLUSH_STEP::Written:
                break;
            case FLUSH_STEP::Empty:
                return STATUS_SUCCESS;
            case FLUSH_STEP::NoSpace:
                return STATUS_DEVICE_BUSY;
            // The removal drops the entry in a moment; until then the queue's order holds what is behind it.
            case FLUSH_STEP::VolumeLeaves:
                return STATUS_DEVICE_BUSY;
        }
    }
}

BOOLEAN IsWriteCacheEmpty(SWAP_FILE* swapFile) {
    return !swapFile || swapFile->CachedWrites == 0;
}

void DropCachedWrites(PVOLUME_EXTENSION volume) {
    KernelMutexLock lock(gSwapFileMutex);
    for (SWAP_FILE* swapFile = gSwapFileList; swapFile; swapFile = swapFile->pNext)
        while (WRITE_CACHE_ENTRY* entry = UnlinkEntryOf(swapFile, volume)) FreeEntry(entry);
}
