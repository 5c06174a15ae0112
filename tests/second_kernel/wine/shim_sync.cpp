// Locks and waiting, with the IRQL that they raise to and may be used at. Wine's kernel mutex never goes over
// to a thread that waits for it, so kernel mutexes are kept here.
#include <atomic>
#include <new>
#include "irql.h"
#include "raise.h"
#include "shim.h"

namespace shim {
namespace {

decltype(&KeWaitForSingleObject) gKernelWait;
decltype(&KeAcquireSpinLockRaiseToDpc) gKernelAcquireSpin;
decltype(&KeReleaseSpinLock) gKernelReleaseSpin;
decltype(&ExAcquireFastMutex) gKernelAcquireFast;
decltype(&ExReleaseFastMutex) gKernelReleaseFast;

constexpr UCHAR kMutexType = 2;  // of the objects that can be waited for

// A kernel mutex, in the memory of a KMUTEX. Header.SignalState is 1 less the owner's acquisitions.
struct Mutex {
    DISPATCHER_HEADER Header;
    std::atomic<PKTHREAD> Owner;
    KEVENT Free;  // lets one thread through
};
static_assert(sizeof(Mutex) == sizeof(KMUTEX));

void NTAPI InitializeMutex(PRKMUTEX mutex, ULONG) {
    auto* own = ::new (mutex) Mutex{};
    own->Header.Type = kMutexType;
    own->Header.SignalState = 1;
    KeInitializeEvent(&own->Free, SynchronizationEvent, TRUE);
}

NTSTATUS AcquireMutex(Mutex* mutex, PLARGE_INTEGER timeout) {
    PKTHREAD self = KvrCurrentThread();
    if (mutex->Owner != self) {
        const NTSTATUS status = gKernelWait(&mutex->Free, Executive, KernelMode, FALSE, timeout);
        if (status != STATUS_SUCCESS) return status;
        mutex->Owner = self;
    }
    --mutex->Header.SignalState;
    return STATUS_SUCCESS;
}

LONG NTAPI ReleaseMutex(PRKMUTEX mutex, BOOLEAN) {
    auto* own = reinterpret_cast<Mutex*>(mutex);
    if (own->Owner != KvrCurrentThread()) {
        BrokenRule("mutex released by a thread that does not own it", SHIM_CALLER);
        Raise(STATUS_MUTANT_NOT_OWNED);
    }
    const LONG before = own->Header.SignalState++;
    if (own->Header.SignalState == 1) {
        own->Owner = nullptr;
        (void)KeSetEvent(&own->Free, IO_NO_INCREMENT, FALSE);
    }
    return before;
}

NTSTATUS NTAPI Wait(PVOID object, KWAIT_REASON reason, KPROCESSOR_MODE mode, BOOLEAN alertable,
                    PLARGE_INTEGER timeout) {
    const bool looksOnly = timeout && timeout->QuadPart == 0;
    RequireIrql(looksOnly ? DISPATCH_LEVEL : APC_LEVEL, "wait at too high an IRQL", SHIM_CALLER);
    if (static_cast<PDISPATCHER_HEADER>(object)->Type == kMutexType)
        return AcquireMutex(static_cast<Mutex*>(object), timeout);
    return gKernelWait(object, reason, mode, alertable, timeout);
}

KIRQL NTAPI AcquireSpin(PKSPIN_LOCK lock) {
    const KIRQL before = Irql();
    RequireIrql(DISPATCH_LEVEL, "spin lock taken at too high an IRQL", SHIM_CALLER);
    (void)gKernelAcquireSpin(lock);
    SetIrql(DISPATCH_LEVEL);
    return before;
}

void NTAPI ReleaseSpin(PKSPIN_LOCK lock, KIRQL irql) {
    if (Irql() != DISPATCH_LEVEL) BrokenRule("spin lock released at another IRQL", SHIM_CALLER);
    gKernelReleaseSpin(lock, irql);
    SetIrql(irql);
}

void FASTCALL AcquireFast(PFAST_MUTEX mutex) {
    RequireIrql(APC_LEVEL, "fast mutex taken at too high an IRQL", SHIM_CALLER);
    if (mutex->Owner == KvrCurrentThread()) BrokenRule("fast mutex taken twice by a thread", SHIM_CALLER);
    gKernelAcquireFast(mutex);
    mutex->Owner = KvrCurrentThread();
    mutex->OldIrql = Irql();
    SetIrql(APC_LEVEL);
}

void FASTCALL ReleaseFast(PFAST_MUTEX mutex) {
    if (Irql() != APC_LEVEL) BrokenRule("fast mutex released at another IRQL", SHIM_CALLER);
    const auto irql = static_cast<KIRQL>(mutex->OldIrql);
    mutex->Owner = nullptr;
    gKernelReleaseFast(mutex);
    SetIrql(irql);
}

const Replacement kReplacements[] = {
    {"KeInitializeMutex", reinterpret_cast<PVOID>(InitializeMutex), nullptr},
    {"KeReleaseMutex", reinterpret_cast<PVOID>(ReleaseMutex), nullptr},
    {"KeWaitForSingleObject", reinterpret_cast<PVOID>(Wait), reinterpret_cast<PVOID*>(&gKernelWait)},
    {"KeAcquireSpinLockRaiseToDpc", reinterpret_cast<PVOID>(AcquireSpin),
     reinterpret_cast<PVOID*>(&gKernelAcquireSpin)},
    {"KeReleaseSpinLock", reinterpret_cast<PVOID>(ReleaseSpin), reinterpret_cast<PVOID*>(&gKernelReleaseSpin)},
    {"ExAcquireFastMutex", reinterpret_cast<PVOID>(AcquireFast), reinterpret_cast<PVOID*>(&gKernelAcquireFast)},
    {"ExReleaseFastMutex", reinterpret_cast<PVOID>(ReleaseFast), reinterpret_cast<PVOID*>(&gKernelReleaseFast)},
};

}  // namespace

Replacements SyncReplacements() {
    return {kReplacements, RTL_NUMBER_OF(kReplacements)};
}

}  // namespace shim
