// SWAP_FILE stands for the storage on one volume: it names that volume, leads to its record, mirrors the free
// space for the write cache and owns the queue. Objects live as long as the driver; volumes come and go.
#pragma once
#include "driver/volume_extension.h"

struct SWAP_FILE {
    std::atomic<ULONG> ulRefCount;  // volumes attached
    SWAP_FILE* pPrevious;           // gSwapFileList, under gSwapFileMutex
    SWAP_FILE* pNext;
    UNICODE_STRING DeviceName;  // over DeviceNameBuffer
    WCHAR DeviceNameBuffer[64];
    KMUTEX CacheLock;
    LIST_ENTRY CacheList KVR_GUARDED_BY(CacheLock);
    std::atomic<PVOLUME_EXTENSION> SwapVolume;  // null while no record of that name is known
    std::atomic<ULONG> ulFreeBytes;             // saturates; changed under the holding volume's SwapLock
};

extern SWAP_FILE* gSwapFileList;
extern KMUTEX gSwapFileMutex;

// IRQL: PASSIVE_LEVEL. Attaches the volume to the object of that name, creating it when needed.
[[nodiscard]] NTSTATUS GetSwapFile(PCUNICODE_STRING name, PVOLUME_EXTENSION volume);
NTSTATUS DetachFromSwap(PVOLUME_EXTENSION volume);
// A record that goes away: no SWAP_FILE goes on pointing to it.
void ForgetSwapVolume(PVOLUME_EXTENSION volume);
// Adds to or takes from the mirror of the free space, saturating in 32 bits. Null does nothing.
void CreditFreeBytes(SWAP_FILE* swapFile, ULONG64 bytes);
void DebitFreeBytes(SWAP_FILE* swapFile, ULONG64 bytes);

// The lower device of the volume that holds `volume`'s swap, for the time of one request. Device() is null when
// there is none. The record behind it cannot go away meanwhile: it is the volume itself, whose RemoveLock the
// request holds, or a lock of its own is held.
class SwapDevice {
public:
    explicit SwapDevice(PVOLUME_EXTENSION volume);
    void Release();  // also when the request leaves by an exception; idempotent
    PDEVICE_OBJECT Device() const { return m_device; }

private:
    PVOLUME_EXTENSION m_held = nullptr;  // RemoveLock acquired
    PDEVICE_OBJECT m_device = nullptr;
};
