// Fast mutexes and spin locks.
#include <sched.h>

#include "platform/host/sync/futex.h"
#include "platform/host/sync/lock_order.h"
#include "platform/host/nt/ntex.h"
#include "platform/host/nt/seam.h"
#include "platform/host/check/verifier.h"

namespace {

using namespace host;

// The platform's values: an image built with its headers initialises fast mutexes itself.
constexpr LONG kFree = 1;
constexpr LONG kHeldAlone = 0;
constexpr LONG kHeldContended = -1;

// Marks the mutex as contended on every attempt, so that whoever releases it wakes the next one.
void AcquireContended(PFAST_MUTEX mutex) {
    for (;;) {
        const LONG was = mutex->State.exchange(kHeldContended, std::memory_order_acquire);
        if (was == kFree) return;
        if (was != kHeldAlone && was != kHeldContended) {
            Violation("fast mutex", "%p is not an initialised fast mutex (state %d)", static_cast<void*>(mutex),
                      was);
        }
        futex::Wait(mutex->State, kHeldContended, nullptr);
    }
}

void Acquire(PFAST_MUTEX mutex) {
    LONG expected = kFree;
    if (!mutex->State.compare_exchange_strong(expected, kHeldAlone, std::memory_order_acquire,
                                              std::memory_order_relaxed)) {
        AcquireContended(mutex);
    }
}

}  // namespace

void ExInitializeFastMutex(PFAST_MUTEX mutex) {
    const LockRank rank = DeclaredRank(mutex);
    mutex->State.store(kFree, std::memory_order_relaxed);
    mutex->Owner.store(nullptr, std::memory_order_relaxed);
    mutex->OldIrql = PASSIVE_LEVEL;
    mutex->Rank = rank.rank;
    mutex->Name = rank.name;
}

void ExAcquireFastMutex(PFAST_MUTEX mutex) KVR_NO_ANALYSIS {
    KTHREAD& thread = *CurrentThread();
    if (thread.Irql > APC_LEVEL) RequireIrql("ExAcquireFastMutex", APC_LEVEL);
    if (mutex->Owner.load(std::memory_order_relaxed) == &thread) {
        Violation("fast mutex", "thread %u acquires %p, which it already holds", thread.Number,
                  static_cast<void*>(mutex));
    }
    CheckLockOrder(thread, mutex->Rank, mutex->Name);
    Acquire(mutex);
    mutex->Owner.store(&thread, std::memory_order_relaxed);
    mutex->OldIrql = thread.Irql;
    PushLock(thread, mutex, mutex->Rank, mutex->Name, APC_LEVEL);
}

void ExReleaseFastMutex(PFAST_MUTEX mutex) KVR_NO_ANALYSIS {
    KTHREAD& thread = *CurrentThread();
    if (mutex->Owner.load(std::memory_order_relaxed) != &thread) {
        Violation("fast mutex", "thread %u releases %p, which it does not hold", thread.Number,
                  static_cast<void*>(mutex));
    }
    if (thread.Irql != APC_LEVEL) {
        Violation("IRQL", "ExReleaseFastMutex called at IRQL %u, not at APC_LEVEL", thread.Irql);
    }
    PopLock(thread, mutex, "ExReleaseFastMutex");
    mutex->Owner.store(nullptr, std::memory_order_relaxed);
    // The address only from here on: the next owner may free the mutex.
    std::atomic<LONG>* word = &mutex->State;
    if (word->exchange(kFree, std::memory_order_release) == kHeldContended) futex::WakeOne(word);
}

void KvrAnnounceHold(PFAST_MUTEX mutex) {
    KTHREAD& thread = *CurrentThread();
    CheckLockOrder(thread, mutex->Rank, mutex->Name);
    PushLock(thread, mutex, mutex->Rank, mutex->Name, PASSIVE_LEVEL);
}

void KvrAnnounceRelease(PFAST_MUTEX mutex) {
    PopLock(*CurrentThread(), mutex, "KvrAnnounceRelease");
}

void KeInitializeSpinLock(PKSPIN_LOCK lock) {
    lock->store(0, std::memory_order_relaxed);
}

KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK lock) {
    KTHREAD& thread = *CurrentThread();
    RequireIrql("KeAcquireSpinLockRaiseToDpc", DISPATCH_LEVEL);
    const auto self = reinterpret_cast<ULONG_PTR>(&thread);
    if (lock->load(std::memory_order_relaxed) == self) {
        Violation("spin lock", "thread %u acquires %p, which it already holds", thread.Number,
                  static_cast<void*>(lock));
    }
    const LockRank rank = DeclaredRank(lock);
    CheckLockOrder(thread, rank.rank, rank.name);
    ULONG_PTR expected = 0;
    while (!lock->compare_exchange_weak(expected, self, std::memory_order_acquire, std::memory_order_relaxed)) {
        expected = 0;
        sched_yield();  // the owner may have lost its processor, which cannot happen on the platform
    }
    const KIRQL former = thread.Irql;
    PushLock(thread, lock, rank.rank, rank.name, DISPATCH_LEVEL);
    return former;
}

void KeReleaseSpinLock(PKSPIN_LOCK lock, KIRQL irql) {
    KTHREAD& thread = *CurrentThread();
    if (lock->load(std::memory_order_relaxed) != reinterpret_cast<ULONG_PTR>(&thread)) {
        Violation("spin lock", "thread %u releases %p, which it does not hold", thread.Number,
                  static_cast<void*>(lock));
    }
    PopLock(thread, lock, "KeReleaseSpinLock");
    if (thread.Irql != irql) {
        Violation("spin lock", "released to IRQL %u, acquired at IRQL %u", irql, thread.Irql);
    }
    lock->store(0, std::memory_order_release);
}
