// Locks, waits and exceptions of the host kernel, alone and contended.
#include <gtest/gtest.h>

#include <thread>

#include "platform/host/object/object.h"
#include "platform/host/memory/pool.h"
#include "platform/host/sync/thread.h"
#include "tests/support/driver_frames.h"

namespace {

using namespace host;

NTSTATUS Wait(PVOID object, const LONGLONG* ticks = nullptr) {
    LARGE_INTEGER timeout{};
    if (ticks != nullptr) timeout.QuadPart = *ticks;
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, ticks != nullptr ? &timeout : nullptr);
}

constexpr LONGLONG OneMillisecond = -10'000;

template <class Body>
void InParallel(int threads, const Body& body) {
    std::vector<std::thread> running;
    for (int i = 0; i < threads; ++i) running.emplace_back([&body, i] { body(i); });
    for (std::thread& thread : running) thread.join();
}

// ---- events ------------------------------------------------------------------------------------------

// Waiters that give up must not take along the wake-up of those that stay.
TEST(HostEvents, EachSetOfASynchronizationEventReleasesOneWaiter) {
    constexpr int Sets = 4000;
    KEVENT event, taken;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    KeInitializeEvent(&taken, SynchronizationEvent, FALSE);
    std::atomic<int> released = 0;
    InParallel(4, [&](int thread) {
        if (thread == 0) {
            for (int i = 0; i < Sets; ++i) {
                KeSetEvent(&event, 0, FALSE);
                EXPECT_EQ(Wait(&taken), STATUS_SUCCESS);
            }
            return;
        }
        const LONGLONG tiny = -20;
        while (released.load() < Sets) {
            const NTSTATUS status = Wait(&event, thread == 1 ? &tiny : &OneMillisecond);
            if (status != STATUS_SUCCESS) continue;
            released.fetch_add(1);
            KeSetEvent(&taken, 0, FALSE);
        }
    });
    EXPECT_EQ(released.load(), Sets);
}

// The waiter owns the event's memory and reuses it as soon as the wait ends.
TEST(HostEvents, SetterNeverTouchesAnEventThatItsWaiterGaveBack) {
    std::atomic<KEVENT*> published = nullptr;
    std::atomic<bool> done = false;
    std::thread setter([&] {
        while (!done.load()) {
            if (KEVENT* event = published.exchange(nullptr); event != nullptr) KeSetEvent(event, 0, FALSE);
        }
    });
    for (int i = 0; i < 5000; ++i) {
        auto* event = new KEVENT;
        KeInitializeEvent(event, i % 2 == 0 ? NotificationEvent : SynchronizationEvent, FALSE);
        published.store(event);
        ASSERT_EQ(Wait(event), STATUS_SUCCESS);
        delete event;
    }
    done.store(true);
    setter.join();
}

// ---- locks -------------------------------------------------------------------------------------------

TEST(HostLocks, ExcludeEachOther) {
    constexpr int Threads = 4, Rounds = 5000;
    FAST_MUTEX fast;
    KMUTEX mutex;
    KSPIN_LOCK spin;
    ExInitializeFastMutex(&fast);
    KeInitializeMutex(&mutex, 0);
    KeInitializeSpinLock(&spin);
    int byFast = 0, byMutex = 0, bySpin = 0;  // plain: the thread sanitizer sees an unordered access
    InParallel(Threads, [&](int thread) {
        for (int i = 0; i < Rounds; ++i) {
            ExAcquireFastMutex(&fast);
            ++byFast;
            ExReleaseFastMutex(&fast);
            const LONGLONG tiny = -50;  // some give up, and must not strand the others
            while (Wait(&mutex, thread == 0 ? &tiny : nullptr) != STATUS_SUCCESS) {
            }
            ++byMutex;
            KeReleaseMutex(&mutex, FALSE);
            const KIRQL former = KeAcquireSpinLockRaiseToDpc(&spin);
            ++bySpin;
            KeReleaseSpinLock(&spin, former);
        }
    });
    EXPECT_EQ(byFast, Threads * Rounds);
    EXPECT_EQ(byMutex, Threads * Rounds);
    EXPECT_EQ(bySpin, Threads * Rounds);
}

struct Counts {
    int destroyed = 0;
    int cleanups = 0;
};

// ---- exceptions --------------------------------------------------------------------------------------

TEST(HostExceptions, CleanupRunsOnceAndDriverDestructorsNever) {
    Counts counts;
    const auto raise = [](void* context) {
        auto* c = static_cast<Counts*>(context);
        CallInTryFinally(
            [](void* inner) {
                CallThroughDriverFrame([](void*) { ExRaiseStatus(STATUS_ACCESS_VIOLATION); }, nullptr,
                                       static_cast<Counts*>(inner)->destroyed);
            },
            c, c->cleanups);
    };
    EXPECT_EQ(CallInTryExcept(raise, &counts), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(counts.cleanups, 1);
    EXPECT_EQ(counts.destroyed, 0);
    EXPECT_EQ(CallInTryExcept([](void*) {}, nullptr), STATUS_SUCCESS);
    CallInTryFinally([](void*) {}, nullptr, counts.cleanups);
    EXPECT_EQ(counts.cleanups, 2);
}

}  // namespace
