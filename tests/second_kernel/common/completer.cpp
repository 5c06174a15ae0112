#include "tests/second_kernel/common/completer.h"
#include <atomic>
#include "tests/second_kernel/common/threads.h"

namespace {

constexpr ULONG kMostKept = 64;

struct Kept {
    PIRP irp;
    void (*carry)(PIRP);
};

// What is kept, and the lock over it; one set for all devices, as one boot runs at a time.
struct Keeper {
    KSPIN_LOCK lock;
    std::atomic<bool> open;
    ULONG count;
    ULONG ever;
    ULONG together;  // so many are waited for
    Kept kept[kMostKept];
    KEVENT changed;
};
constinit Keeper gKeeper{};

class KeeperLock {
public:
    KeeperLock() : m_irql(KeAcquireSpinLockRaiseToDpc(&gKeeper.lock)) {}
    ~KeeperLock() { KeReleaseSpinLock(&gKeeper.lock, m_irql); }
    KeeperLock(const KeeperLock&) = delete;
    KeeperLock& operator=(const KeeperLock&) = delete;

private:
    KIRQL m_irql;
};

enum class Next { Carry, Wait, End };

// Takes the first and the last in turns, so that requests overtake each other.
Next TakeKept(Kept* taken) {
    const KeeperLock lock;
    if (gKeeper.count >= gKeeper.together || !gKeeper.open) gKeeper.together = 0;
    if (gKeeper.count == 0 || gKeeper.together != 0) {
        if (!gKeeper.open) return Next::End;
        KeClearEvent(&gKeeper.changed);
        return Next::Wait;
    }
    const ULONG index = gKeeper.ever % 2 ? 0 : gKeeper.count - 1;
    *taken = gKeeper.kept[index];
    gKeeper.kept[index] = gKeeper.kept[--gKeeper.count];
    return Next::Carry;
}

void CompleteRaised(PIRP irp) {
    KSPIN_LOCK raise;
    KeInitializeSpinLock(&raise);
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&raise);
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    KeReleaseSpinLock(&raise, irql);
}

void WaitForChange() {
    LARGE_INTEGER time;
    time.QuadPart = -5 * 10'000'000LL;
    const NTSTATUS status = KeWaitForSingleObject(&gKeeper.changed, Executive, KernelMode, FALSE, &time);
    if (status == STATUS_SUCCESS) return;
    const KeeperLock lock;
    gKeeper.together = 0;
}

void CarryKept(PVOID) {
    Kept taken{};
    for (Next next = TakeKept(&taken); next != Next::End; next = TakeKept(&taken)) {
        if (next == Next::Wait) {
            WaitForChange();
            continue;
        }
        taken.carry(taken.irp);
        CompleteRaised(taken.irp);
    }
    (void)PsTerminateSystemThread(STATUS_SUCCESS);
}

void SetOpen(bool open) {
    const KeeperLock lock;
    gKeeper.open = open;
    KeSetEvent(&gKeeper.changed, 0, FALSE);
}

}  // namespace

PendedCompletions::PendedCompletions(ULONG together) {
    KeInitializeSpinLock(&gKeeper.lock);
    KeInitializeEvent(&gKeeper.changed, NotificationEvent, FALSE);
    gKeeper.count = 0;
    gKeeper.ever = 0;
    gKeeper.together = together;
    for (PVOID& thread : m_threads) thread = nullptr;
    SetOpen(true);
    for (PVOID& thread : m_threads) thread = StartThread(CarryKept, nullptr);
    if (!m_threads[0]) SetOpen(false);
}

PendedCompletions::~PendedCompletions() {
    SetOpen(false);
    for (PVOID thread : m_threads) JoinThread(thread);
}

bool PendRequest(PIRP irp, void (*carry)(PIRP)) {
    if (!gKeeper.open) return false;
    const KeeperLock lock;
    if (!gKeeper.open || gKeeper.count == kMostKept) return false;
    IoMarkIrpPending(irp);
    gKeeper.kept[gKeeper.count++] = {irp, carry};
    ++gKeeper.ever;
    KeSetEvent(&gKeeper.changed, 0, FALSE);
    return true;
}

ULONG PendedRequests() {
    return gKeeper.ever;
}
