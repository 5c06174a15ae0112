// IRQL, locks and waits: what the host kernel checks about them, beyond the platform's own names in ntke.h
// and ntex.h.
//
// Every thread keeps the list of the locks it holds. A lock may have a rank; a lock of rank r may only be
// acquired while every ranked lock that the thread holds has a rank below r. Two locks of equal rank are
// thus never held together. Rank 0 has no place in the order and is not checked.
#pragma once
#include "platform/host/nt/ntex.h"

namespace host {

inline constexpr int kMaxHeldLocks = 16;  // per thread

// Sets the current thread's IRQL, as KeRaiseIrql and KeLowerIrql do, and returns the former one. For the
// machine's devices and for tests; a lock that is held keeps the level from being lowered below its own.
KIRQL SetIrql(KIRQL irql);

// Gives a place in the lock order to a lock that has been initialised. `name` must outlive the lock.
// Nobody may hold or acquire the lock meanwhile.
void SetLockRank(PFAST_MUTEX lock, ULONG rank, const char* name);
void SetLockRank(PKMUTEX lock, ULONG rank, const char* name);

// Declares a lock by its address, before or after its initialisation: whenever a lock at `lock` is
// initialised, it gets this rank. For the driver's global locks, which every boot initialises anew.
// At most 32 declarations; a second one of the same address replaces the first.
void DeclareLockRank(const void* lock, ULONG rank, const char* name);

// What a thread holds, to compare before and after a call.
struct LockState {
    KIRQL irql;
    int held;
};
LockState CaptureLockState();
// Stops when the thread's IRQL or the number of locks it holds differs from `before`. `where` names the call.
void CheckLockState(const LockState& before, const char* where);
// Stops unless the thread holds no lock and is at PASSIVE_LEVEL.
void CheckQuiescent(const char* where);

}  // namespace host
