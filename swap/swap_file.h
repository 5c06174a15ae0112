// SWAP_FILE stands for the storage on one volume: it names that volume, leads to its record, mirrors the free
// space for the write cache and owns the queue. Objects live as long as the driver; volumes come and go.
#pragma once
#include "driver/record/volume_list.h"

struct SWAP_FILE {
    std::atomic<ULONG> ulRefCount;  // volumes attached
    SWAP_FILE* pPrevious;           // gSwapFileList, under gSwapFileMutex
    SWAP_FILE* pNext;
    UNICODE_STRING DeviceName;  // over DeviceNameBuffer
    WCHAR DeviceNameBuffer[64];
    KMUTEX CacheLock;
    LIST_ENTRY CacheList KVR_GUARDED_BY(CacheLock);
    std::atomic<PVOLUME_EXTENSION> SwapVolume;  // null while no record of that name is known; gSwapFileMutex
    std::atomic<ULONG> ulFreeBytes;             // mirror of the holding volume's SwapFreeBytes, see below
    std::atomic<ULONG> CachedWrites;            // entries of CacheList, changed with it; read without CacheLock
    KMUTEX FlushLock;  // one flush writes at a time, so that the queue's order is the order in the swap
};

extern SWAP_FILE* gSwapFileList;
extern KMUTEX gSwapFileMutex;

// IRQL of everything here, but for MirrorFreeBytes: PASSIVE_LEVEL, with no lock held but gSwapFileMutex.

// Attaches the volume to the object of that name, creating it when needed. STATUS_SUCCESS also when it is
// attached already; STATUS_INSUFFICIENT_RESOURCES when there is no pool for the object.
[[nodiscard]] NTSTATUS GetSwapFile(PCUNICODE_STRING name, PVOLUME_EXTENSION volume);
// Drops the volume's attachment. SwapFile becomes null only when it was the last one; whoever removes the
// record clears it in any case.
NTSTATUS DetachFromSwap(PVOLUME_EXTENSION volume);  // always STATUS_SUCCESS
// A record that goes away: no SWAP_FILE goes on pointing to it. A later record of that name is found again.
void ForgetSwapVolume(PVOLUME_EXTENSION volume);
// Copies the volume's SwapFreeBytes into the ulFreeBytes of the storage that it holds, cut to 32 bits. To be
// called after each change of SwapFreeBytes, before SwapLock is released; does nothing while the volume holds
// no storage. A copy, not a sum: what was cut comes back to the true value, and no update can be missed for
// good.
void MirrorFreeBytes(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock);

// The lower device of the volume that holds a volume's swap, for the time of one request. The record behind it
// cannot go away meanwhile: it is the volume itself, whose RemoveLock the request holds, or a hold of its own
// is kept.
class SwapDevice {
public:
    // Null when there is none. Looked up by the first call, for the volume of that call.
    [[nodiscard]] PDEVICE_OBJECT Of(PVOLUME_EXTENSION volume);
    void Release();  // also when the request leaves by an exception; idempotent

private:
    void Find(PVOLUME_EXTENSION volume);

    bool m_known = false;
    PDEVICE_OBJECT m_device = nullptr;
    RecordHold m_held;
};
