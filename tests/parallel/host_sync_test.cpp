// Locks and waits of the host kernel, contended.
#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include "platform/kernel.h"
#include "tests/support/at_once.h"

namespace {

// Without a time: until the object is signalled. `ticks` counts from now and is negative.
NTSTATUS Wait(PVOID object, LONGLONG ticks = 0) {
    LARGE_INTEGER timeout = {.QuadPart = ticks};
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, ticks != 0 ? &timeout : nullptr);
}

constexpr LONGLONG OneMillisecond = -10'000;

// ---- events ------------------------------------------------------------------------------------------

// Waiters that give up must not take along the wake-up of those that stay.
TEST(HostEvents, EachSetOfASynchronizationEventReleasesOneWaiter) {
    constexpr int Sets = 4000;
    KEVENT event, taken;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    KeInitializeEvent(&taken, SynchronizationEvent, FALSE);
    std::atomic<int> released = 0;
    AtOnce(4, [&](int thread) {
        if (thread == 0) {
            for (int i = 0; i < Sets; ++i) {
                KeSetEvent(&event, 0, FALSE);
                EXPECT_EQ(Wait(&taken), STATUS_SUCCESS);
            }
            return;
        }
        while (released.load() < Sets) {
            if (Wait(&event, thread == 1 ? -20 : OneMillisecond) != STATUS_SUCCESS) continue;
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
    AtOnce(2, [&](int thread) {
        while (thread == 0 && !done.load())
            if (KEVENT* event = published.exchange(nullptr); event != nullptr) KeSetEvent(event, 0, FALSE);
        for (int i = 0; thread == 1 && i < 5000; ++i) {
            const auto event = std::make_unique<KEVENT>();
            KeInitializeEvent(event.get(), i % 2 == 0 ? NotificationEvent : SynchronizationEvent, FALSE);
            published.store(event.get());
            EXPECT_EQ(Wait(event.get()), STATUS_SUCCESS);
        }
        done.store(true);
    });
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
    AtOnce(Threads, [&](int thread) {
        for (int i = 0; i < Rounds; ++i) {
            ExAcquireFastMutex(&fast);
            ++byFast;
            ExReleaseFastMutex(&fast);
            // Some give up, and must not strand the others.
            while (Wait(&mutex, thread == 0 ? -50 : 0) != STATUS_SUCCESS) {
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

}  // namespace
