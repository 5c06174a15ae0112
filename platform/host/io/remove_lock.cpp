#include "platform/host/nt/ntio.h"
#include "platform/host/check/verifier.h"

// The count starts at 1 for the lock itself. An acquirer counts first and looks for the removal afterwards, the
// remover marks first and counts afterwards, both in one total order: whoever is not turned away is waited for.

void IoInitializeRemoveLock(PIO_REMOVE_LOCK lock, ULONG, ULONG, ULONG) {
    lock->Removed.store(FALSE, std::memory_order_relaxed);
    lock->IoCount.store(1, std::memory_order_relaxed);
    KeInitializeEvent(&lock->RemoveEvent, NotificationEvent, FALSE);
}

NTSTATUS IoAcquireRemoveLock(PIO_REMOVE_LOCK lock, PVOID tag) {
    lock->IoCount.fetch_add(1);
    if (lock->Removed.load() == FALSE) return STATUS_SUCCESS;
    IoReleaseRemoveLock(lock, tag);
    return STATUS_DELETE_PENDING;
}

void IoReleaseRemoveLock(PIO_REMOVE_LOCK lock, PVOID) {
    const LONG before = lock->IoCount.fetch_sub(1);
    if (before > 1) return;
    // After the removal's wait a late acquirer may count up from 0 and down again: nobody waits for it any
    // more.
    if (before < 1 || lock->Removed.load() == FALSE)
        host::Violation("remove lock released that is not held", "lock %p", static_cast<void*>(lock));
    KeSetEvent(&lock->RemoveEvent, IO_NO_INCREMENT, FALSE);
}

void IoReleaseRemoveLockAndWait(PIO_REMOVE_LOCK lock, PVOID) {
    host::RequireIrql("IoReleaseRemoveLockAndWait", APC_LEVEL);
    if (lock->Removed.exchange(TRUE) != FALSE)
        host::Violation("remove lock removed twice", "lock %p", static_cast<void*>(lock));
    const LONG before = lock->IoCount.fetch_sub(2);
    if (before < 2)
        host::Violation("remove lock released that is not held", "lock %p", static_cast<void*>(lock));
    if (before == 2) return;
    // The wait has no time-out and cannot be alerted, so it always succeeds.
    (void)KeWaitForSingleObject(&lock->RemoveEvent, Executive, KernelMode, FALSE, nullptr);
}
