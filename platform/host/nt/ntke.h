// Kernel layer: dispatcher objects, waits, spin locks, IRQL, time, interlocked operations.
#pragma once
#include <atomic>
#include "platform/host/nt/annotations.h"
#include "platform/host/nt/ntstatus.h"

inline constexpr KIRQL PASSIVE_LEVEL = 0;
inline constexpr KIRQL APC_LEVEL = 1;
inline constexpr KIRQL DISPATCH_LEVEL = 2;

enum EVENT_TYPE { NotificationEvent, SynchronizationEvent };
enum KWAIT_REASON { Executive = 0, UserRequest = 6 };

enum class HostDispatcherType : UCHAR { None, Event, Mutex, Thread };  // None: never initialised

// What KeWaitForSingleObject waits on. SignalState is the host kernel's own encoding, one word so that nothing
// of the object is touched once a waiter can have seen it signalled (a waiter may own its memory):
// events and threads: bit 0 signalled, bit 1 somebody may sleep, the rest counts the times it was set;
// mutexes: 0 free, 1 held, 2 held and somebody may sleep.
struct DISPATCHER_HEADER {
    HostDispatcherType Type;
    UCHAR Synchronization;  // events: 1 resets the event when a wait is satisfied
    std::atomic<LONG> SignalState;
    LIST_ENTRY Room8;
};

struct KEVENT {
    DISPATCHER_HEADER Header;
};
using PKEVENT = KEVENT*;
using PRKEVENT = KEVENT*;

// Recursive, owned by a thread, as the platform's.
struct KVR_CAPABILITY("kernel mutex") KMUTEX {
    DISPATCHER_HEADER Header;
    std::atomic<void*> Owner;
    LONG Recursion;
    ULONG Rank;  // place in the lock order, 0 when it has none; see sync.h
    const char* Name;
    UCHAR Room30[8];
};
using PKMUTEX = KMUTEX*;
using PRKMUTEX = KMUTEX*;

using KSPIN_LOCK = std::atomic<ULONG_PTR>;
using PKSPIN_LOCK = KSPIN_LOCK*;

struct KTHREAD;
using PKTHREAD = KTHREAD*;
using PETHREAD = KTHREAD*;

KIRQL KeGetCurrentIrql();
void KeInitializeEvent(PRKEVENT event, EVENT_TYPE type, BOOLEAN state);
LONG KeSetEvent(PRKEVENT event, KPRIORITY increment, BOOLEAN wait);
void KeClearEvent(PRKEVENT event);
LONG KeReadStateEvent(PRKEVENT event);
void KeInitializeMutex(PRKMUTEX mutex, ULONG level);
LONG KeReleaseMutex(PRKMUTEX mutex, BOOLEAN wait);
// IRQL: below DISPATCH_LEVEL, or DISPATCH_LEVEL with a timeout of 0; a mutex: PASSIVE_LEVEL. `timeout` in 100
// ns: null waits for ever, 0 polls, a negative one counts from now, a positive one is a system time.
[[nodiscard]] NTSTATUS KeWaitForSingleObject(PVOID object, KWAIT_REASON reason, KPROCESSOR_MODE mode,
                                             BOOLEAN alertable, PLARGE_INTEGER timeout);
void KeInitializeSpinLock(PKSPIN_LOCK lock);
KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK lock);
void KeReleaseSpinLock(PKSPIN_LOCK lock, KIRQL irql);
PKTHREAD KeGetCurrentThread();
void KeQuerySystemTime(PLARGE_INTEGER time);
void ExSystemTimeToLocalTime(PLARGE_INTEGER system, PLARGE_INTEGER local);
[[noreturn]] void KeBugCheckEx(ULONG code, ULONG_PTR p1, ULONG_PTR p2, ULONG_PTR p3, ULONG_PTR p4);
