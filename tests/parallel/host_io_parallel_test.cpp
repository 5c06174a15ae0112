// The request path and the remove lock with many threads at once.
#include "tests/platform/host_stub.h"
#include <deque>
#include <thread>
#include "platform/host/host_lock.h"

namespace {

using stub::Device;

class HostIoParallel : public stub::Kernel {};

// Completes requests on its own thread, in the order in which they came.
class Worker {
public:
    Worker() : thread_([this] { Run(); }) {}
    ~Worker() {
        stop_ = true;
        thread_.join();
    }
    NTSTATUS Take(PIRP irp) {
        IoMarkIrpPending(irp);
        host::HostGuard guard(lock_);
        queue_.push_back(irp);
        return STATUS_PENDING;
    }

private:
    PIRP Next() {
        host::HostGuard guard(lock_);
        if (queue_.empty()) return nullptr;
        PIRP irp = queue_.front();
        queue_.pop_front();
        return irp;
    }
    void Run() {
        while (!stop_) {
            while (PIRP irp = Next()) stub::Complete(irp, STATUS_SUCCESS, 512);
            std::this_thread::yield();
        }
    }
    host::HostLock lock_;
    std::deque<PIRP> queue_ KVR_GUARDED_BY(lock_);
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

template <class Body>
void OnThreads(int count, const Body& body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) threads.emplace_back([&body, i] { body(i); });
    for (std::thread& thread : threads) thread.join();
}

TEST_F(HostIoParallel, RequestsEndOnWhicheverThread) {
    constexpr int Rounds = 400;
    Worker worker;
    Device disk(driver, [&](PDEVICE_OBJECT, PIRP irp) {
        const auto& read = IoGetCurrentIrpStackLocation(irp)->Parameters.Read;
        return read.ByteOffset.QuadPart % 1024 != 0 ? worker.Take(irp)
                                                    : stub::Complete(irp, STATUS_SUCCESS, 512);
    });
    Device filter(driver, stub::PassDown, disk.object);
    std::atomic<int> ended{0};
    OnThreads(4, [&](int) {
        char data[512];
        for (int i = 0; i < Rounds; ++i) {
            const host::Request request{.length = sizeof data, .offset = 512 * i, .buffer = data};
            EXPECT_EQ(512u, host::Send(filter.object, request).information);
            host::SendAsync(
                filter.object, {.offset = 512 * i},
                [](void* count, host::Outcome) { ++*static_cast<std::atomic<int>*>(count); }, &ended);
        }
    });
    while (ended < 4 * Rounds) std::this_thread::yield();
    filter.Delete();
}

// After the wait nobody is inside, and nobody gets in any more.
TEST_F(HostIoParallel, RemoveLockWaitsForEveryHolder) {
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

TEST_F(HostIoParallel, RemoveLockMisuseStops) {
    IO_REMOVE_LOCK lock;
    IoInitializeRemoveLock(&lock, 0, 0, 0);
    EXPECT_DEATH(IoReleaseRemoveLock(&lock, nullptr), "released that is not held");
    EXPECT_DEATH(IoReleaseRemoveLockAndWait(&lock, nullptr), "released that is not held");
}

}  // namespace
