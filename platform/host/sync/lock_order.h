// The list of locks that each thread holds, and the checks on it. For the host kernel's own files.
#pragma once
#include "platform/host/sync/current_thread.h"

namespace host {

struct LockRank {
    ULONG rank;
    const char* name;
};
// What was declared for the lock at this address; rank 0 when nothing was.
LockRank DeclaredRank(const void* lock);

[[noreturn]] void StopTooManyLocks();
[[noreturn]] void StopLockOrder(const HeldLock& held, ULONG rank, const char* name);

// Before blocking on a lock, so that a wrong order stops instead of deadlocking.
inline void CheckLockOrder(const KTHREAD& thread, ULONG rank, const char* name) {
    if (rank == 0) return;
    for (int i = 0; i < thread.HeldCount; ++i) {
        if (thread.Held[i].rank >= rank) StopLockOrder(thread.Held[i], rank, name);
    }
}

// After a lock was acquired: records it and raises the thread to `level`.
inline void PushLock(KTHREAD& thread, const void* lock, ULONG rank, const char* name, KIRQL level) {
    if (thread.HeldCount == kMaxHeldLocks) StopTooManyLocks();
    thread.Held[thread.HeldCount++] = {lock, name, rank, thread.Irql, level};
    if (thread.Irql < level) thread.Irql = level;
}

// Before a lock is released: forgets it and returns the thread to the level it had before. Stops when that is
// below what another lock that is still held demands.
void PopLock(KTHREAD& thread, const void* lock, const char* routine);

}  // namespace host
