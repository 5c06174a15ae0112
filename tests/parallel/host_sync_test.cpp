// Events of the host kernel, contended.
#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include "platform/kernel.h"
#include "tests/support/at_once.h"

namespace {

// Without a time: until the event is set. `ticks` counts from now and is negative.
NTSTATUS Wait(PKEVENT event, LONGLONG ticks = 0) {
    LARGE_INTEGER timeout = {.QuadPart = ticks};
    return KeWaitForSingleObject(event, Executive, KernelMode, FALSE, ticks != 0 ? &timeout : nullptr);
}

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
            if (Wait(&event, thread == 1 ? -20 : -10'000) != STATUS_SUCCESS) continue;
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

}  // namespace
