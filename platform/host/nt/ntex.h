// Executive: pool, fast mutexes, raised exceptions.
#pragma once
#include "platform/host/nt/ntke.h"

enum POOL_TYPE { NonPagedPool = 0, PagedPool = 1, NonPagedPoolNx = 512 };

// Not recursive; holding one raises the thread to APC_LEVEL.
struct KVR_CAPABILITY("fast mutex") FAST_MUTEX {
    std::atomic<LONG> State;  // 1 free, 0 held, -1 held with waiters
    std::atomic<void*> Owner;
    ULONG Rank;        // place in the lock order, 0 when it has none; see sync.h
    UCHAR Room18[8];   // images built with the platform's headers initialise an event here
    const char* Name;  // with a rank only
    UCHAR Room28[8];
    KIRQL OldIrql;
};
using PFAST_MUTEX = FAST_MUTEX*;

PVOID ExAllocatePoolWithTag(POOL_TYPE type, SIZE_T bytes, ULONG tag);
void ExFreePoolWithTag(PVOID block, ULONG tag);
void ExInitializeFastMutex(PFAST_MUTEX mutex);
void ExAcquireFastMutex(PFAST_MUTEX mutex) KVR_ACQUIRE(*mutex);
void ExReleaseFastMutex(PFAST_MUTEX mutex) KVR_RELEASE(*mutex);
[[noreturn]] void ExRaiseStatus(NTSTATUS status);
