#include "tests/second_kernel/common/completer.h"
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>

namespace {

struct Kept {
    PIRP irp;
    void (*carry)(PIRP);
};

// What is kept, for all devices.
struct Keeper {
    std::mutex lock;
    std::condition_variable changed;
    bool open = false;
    ULONG ever = 0;
    ULONG together = 0;  // so many are waited for
    std::deque<Kept> kept;
};
Keeper gKeeper;

// Takes the first and the last in turns, so that requests overtake each other. Nothing at the end.
std::optional<Kept> TakeKept() {
    std::unique_lock hold(gKeeper.lock);
    const auto isOverlap = [] { return gKeeper.kept.size() >= gKeeper.together || !gKeeper.open; };
    (void)gKeeper.changed.wait_for(hold, std::chrono::seconds(5), isOverlap);
    gKeeper.together = 0;
    gKeeper.changed.wait(hold, [] { return !gKeeper.kept.empty() || !gKeeper.open; });
    if (gKeeper.kept.empty()) return std::nullopt;
    if (gKeeper.ever % 2 == 0) std::swap(gKeeper.kept.front(), gKeeper.kept.back());
    const Kept taken = gKeeper.kept.front();
    gKeeper.kept.pop_front();
    return taken;
}

void CompleteRaised(PIRP irp) {
    KSPIN_LOCK raise;
    KeInitializeSpinLock(&raise);
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&raise);
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    KeReleaseSpinLock(&raise, irql);
}

void CarryKept() {
    while (const std::optional<Kept> taken = TakeKept()) {
        taken->carry(taken->irp);
        CompleteRaised(taken->irp);
    }
}

}  // namespace

PendedCompletions::PendedCompletions(ULONG together) {
    gKeeper.ever = 0;
    gKeeper.together = together;
    gKeeper.open = true;
    for (std::thread& thread : m_threads) thread = std::thread(CarryKept);
}

PendedCompletions::~PendedCompletions() {
    {
        const std::lock_guard hold(gKeeper.lock);
        gKeeper.open = false;
    }
    gKeeper.changed.notify_all();
    for (std::thread& thread : m_threads) thread.join();
}

bool PendRequest(PIRP irp, void (*carry)(PIRP)) {
    const std::lock_guard hold(gKeeper.lock);
    if (!gKeeper.open) return false;
    IoMarkIrpPending(irp);
    gKeeper.kept.push_back({irp, carry});
    ++gKeeper.ever;
    gKeeper.changed.notify_all();
    return true;
}

ULONG PendedRequests() {
    return gKeeper.ever;
}
