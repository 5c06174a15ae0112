// The remove lock with many threads at once.
#include <gtest/gtest.h>
#include <atomic>
#include <thread>
#include <vector>
#include "platform/kernel.h"

namespace {

template <class Body>
void OnThreads(int count, const Body& body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) threads.emplace_back([&body, i] { body(i); });
    for (std::thread& thread : threads) thread.join();
}

// After the wait nobody is inside, and nobody gets in any more.
TEST(HostRemoveLock, WaitsForEveryHolder) {
    for (int round = 0; round < 50; ++round) {
        IO_REMOVE_LOCK lock;
        IoInitializeRemoveLock(&lock, 0, 0, 0);
        ASSERT_EQ(STATUS_SUCCESS, IoAcquireRemoveLock(&lock, nullptr));
        int guarded = 0;  // plain: only holders read it, only the remover writes it, once it is alone
        std::atomic<int> refused{0}, entered{0};
        OnThreads(4, [&](int i) {
            if (i == 0) {
                while (entered < 3) std::this_thread::yield();
                IoReleaseRemoveLockAndWait(&lock, nullptr);
                guarded = 1;
                return;
            }
            for (bool first = true;; first = false) {
                if (IoAcquireRemoveLock(&lock, nullptr) != STATUS_SUCCESS) break;
                EXPECT_EQ(0, guarded);
                if (first) ++entered;
                IoReleaseRemoveLock(&lock, nullptr);
            }
            ++refused;
        });
        EXPECT_EQ(3, refused);
        EXPECT_EQ(STATUS_DELETE_PENDING, IoAcquireRemoveLock(&lock, nullptr));
    }
}

}  // namespace
