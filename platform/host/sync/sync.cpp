#include "platform/host/sync/sync.h"

#include "platform/host/sync/lock_order.h"
#include "platform/host/check/verifier.h"

KIRQL KeGetCurrentIrql() {
    return host::CurrentThread()->Irql;
}

namespace host {
namespace {

template <class Lock>
void Rank(Lock* lock, ULONG rank, const char* name) {
    lock->Rank = rank;
    lock->Name = name;
}

[[noreturn]] void StopHolding(const KTHREAD& thread, const char* where) {
    const HeldLock& last = thread.Held[thread.HeldCount - 1];
    Violation("lock held", "%s: thread %u holds %d lock(s), last %s (%p)", where, thread.Number,
              thread.HeldCount, last.name != nullptr ? last.name : "one without a name", last.lock);
}

}  // namespace

KIRQL SetIrql(KIRQL irql) {
    KTHREAD& thread = *CurrentThread();
    for (int i = 0; i < thread.HeldCount; ++i) {
        if (thread.Held[i].lockLevel > irql) {
            Violation("IRQL", "lowered to %u while a lock that needs %u is held", irql,
                      thread.Held[i].lockLevel);
        }
    }
    const KIRQL former = thread.Irql;
    thread.Irql = irql;
    return former;
}

void RequireIrql(const char* routine, KIRQL highest) {
    const KIRQL irql = CurrentThread()->Irql;
    if (irql > highest) Violation("IRQL", "%s called at IRQL %u, highest allowed %u", routine, irql, highest);
}

void RequirePageable(const char* routine, KIRQL highest) {
    RequireIrql(routine, highest);
    if (CurrentThread()->IsAtLastChance)
        Violation("last chance", "%s is pageable or needs a file system, and both are gone", routine);
}

void SetLockRank(PFAST_MUTEX lock, ULONG rank, const char* name) {
    Rank(lock, rank, name);
}

void SetLockRank(PKMUTEX lock, ULONG rank, const char* name) {
    Rank(lock, rank, name);
}

LockState CaptureLockState() {
    const KTHREAD& thread = *CurrentThread();
    return {thread.Irql, thread.HeldCount};
}

void CheckLockState(const LockState& before, const char* where) {
    const KTHREAD& thread = *CurrentThread();
    if (thread.HeldCount > before.held) StopHolding(thread, where);
    if (thread.HeldCount < before.held) {
        Violation("lock held", "%s: thread %u released %d lock(s) of its caller", where, thread.Number,
                  before.held - thread.HeldCount);
    }
    if (thread.Irql != before.irql) {
        Violation("IRQL", "%s: entered at IRQL %u, left at %u", where, before.irql, thread.Irql);
    }
}

void CheckQuiescent(const char* where) {
    CheckLockState({PASSIVE_LEVEL, 0}, where);
}

}  // namespace host
