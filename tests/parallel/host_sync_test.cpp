// Locks, waits, threads and handles of the host kernel, alone and contended.
#include <gtest/gtest.h>

#include <thread>

#include "platform/host/debug_sink.h"
#include "platform/host/injector.h"
#include "platform/host/object.h"
#include "platform/host/pool.h"
#include "platform/host/thread.h"
#include "tests/support/driver_frames.h"

namespace {

using namespace host;

NTSTATUS Wait(PVOID object, const LONGLONG* ticks = nullptr) {
    LARGE_INTEGER timeout{};
    if (ticks != nullptr) timeout.QuadPart = *ticks;
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, ticks != nullptr ? &timeout : nullptr);
}

constexpr LONGLONG Poll = 0;
constexpr LONGLONG OneMillisecond = -10'000;

bool Sleeping(const KEVENT& event) {
    return (event.Header.SignalState.load() & 2) != 0;
}

template <class Body>
void InParallel(int threads, const Body& body) {
    std::vector<std::thread> running;
    for (int i = 0; i < threads; ++i) running.emplace_back([&body, i] { body(i); });
    for (std::thread& thread : running) thread.join();
}

// ---- events ------------------------------------------------------------------------------------------

TEST(HostEvents, StatesAndPolls) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, TRUE);
    EXPECT_EQ(Wait(&event), STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateEvent(&event), 1);
    KeClearEvent(&event);
    EXPECT_EQ(Wait(&event, &Poll), STATUS_TIMEOUT);
    EXPECT_EQ(Wait(&event, &OneMillisecond), STATUS_TIMEOUT);
    EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 0);
    EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 1);
    KeInitializeEvent(&event, SynchronizationEvent, TRUE);
    EXPECT_EQ(Wait(&event), STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateEvent(&event), 0);
    const KIRQL former = SetIrql(DISPATCH_LEVEL);
    EXPECT_EQ(Wait(&event, &Poll), STATUS_TIMEOUT);
    SetIrql(former);
}

TEST(HostEvents, SetReleasesSleepersThoughClearedAtOnce) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    for (int round = 0; round < 200; ++round) {
        std::thread waiter([&] { EXPECT_EQ(Wait(&event), STATUS_SUCCESS); });
        while (!Sleeping(event)) std::this_thread::yield();
        KeSetEvent(&event, 0, FALSE);
        KeClearEvent(&event);
        waiter.join();
    }
}

// Threads asleep on one event: `released` counts those that its sets have let go.
class Sleepers {
public:
    Sleepers(EVENT_TYPE type, int count) {
        KeInitializeEvent(&event_, type, FALSE);
        for (int i = 0; i < count; ++i) threads_.emplace_back([this] { Sleep(); });
        while (started_.load() < count || !Sleeping(event_)) std::this_thread::yield();
        for (int i = 0; i < 50; ++i) std::this_thread::yield();  // so that the last of them sleeps too
    }
    ~Sleepers() {
        for (std::thread& thread : threads_) thread.join();
    }
    void SetAndAwait(int released) {
        KeSetEvent(&event_, 0, FALSE);
        while (released_.load() < released) std::this_thread::yield();
    }

private:
    void Sleep() {
        started_.fetch_add(1);
        EXPECT_EQ(Wait(&event_), STATUS_SUCCESS);
        released_.fetch_add(1);
    }

    KEVENT event_;
    std::atomic<int> started_ = 0, released_ = 0;
    std::vector<std::thread> threads_;
};

TEST(HostEvents, OneSetReleasesAllSleepersOrExactlyOne) {
    for (int round = 0; round < 50; ++round) {
        Sleepers(NotificationEvent, 3).SetAndAwait(3);
        Sleepers one(SynchronizationEvent, 3);
        for (int released = 1; released <= 3; ++released) one.SetAndAwait(released);
    }
}

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

TEST(HostLocks, FastMutexRaisesAndRestores) {
    FAST_MUTEX a, b;
    ExInitializeFastMutex(&a);
    ExInitializeFastMutex(&b);
    ExAcquireFastMutex(&a);
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    ExAcquireFastMutex(&b);
    ExReleaseFastMutex(&b);
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
    ExReleaseFastMutex(&a);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    CheckQuiescent("the test");
}

TEST(HostLocks, MutexIsRecursiveAndRanked) {
    KMUTEX mutex;
    FAST_MUTEX inner;
    KeInitializeMutex(&mutex, 0);
    ExInitializeFastMutex(&inner);
    SetLockRank(&mutex, 1, "outer");
    SetLockRank(&inner, 2, "inner");
    EXPECT_EQ(Wait(&mutex), STATUS_SUCCESS);
    EXPECT_EQ(Wait(&mutex), STATUS_SUCCESS);
    ExAcquireFastMutex(&inner);
    ExReleaseFastMutex(&inner);
    std::thread([&] { EXPECT_EQ(Wait(&mutex, &OneMillisecond), STATUS_TIMEOUT); }).join();
    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), -1);
    std::thread([&] { EXPECT_EQ(Wait(&mutex, &Poll), STATUS_TIMEOUT); }).join();
    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), 0);
    std::thread([&] {
        EXPECT_EQ(Wait(&mutex, &Poll), STATUS_SUCCESS);
        KeReleaseMutex(&mutex, FALSE);
    }).join();
}

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

// ---- threads -----------------------------------------------------------------------------------------

HANDLE Start(PKSTART_ROUTINE routine, void* context) {
    HANDLE handle = nullptr;
    EXPECT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, routine, context),
              STATUS_SUCCESS);
    return handle;
}

ObjectRef<KTHREAD> ThreadOf(HANDLE handle) {
    PVOID thread = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(handle, THREAD_ALL_ACCESS, KvrThreadObjectType(), KernelMode, &thread,
                                        nullptr),
              STATUS_SUCCESS);
    return ObjectRef<KTHREAD>(static_cast<KTHREAD*>(thread));
}

struct Counts {
    int destroyed = 0;
    int cleanups = 0;
    std::atomic<PKTHREAD> self = nullptr;
};

TEST(HostThreads, EndThroughDriverFramesWithAStatusAndNoCleanup) {
    Counts counts;
    const HANDLE handle = Start(
        [](PVOID context) {
            auto* c = static_cast<Counts*>(context);
            c->self = KeGetCurrentThread();
            CallInTryFinally(
                [](void* inner) {
                    CallThroughDriverFrame([](void*) { (void)PsTerminateSystemThread(STATUS_DISK_FULL); },
                                           nullptr, static_cast<Counts*>(inner)->destroyed);
                },
                c, c->cleanups);
        },
        &counts);
    const auto thread = ThreadOf(handle);
    EXPECT_EQ(Wait(thread.get()), STATUS_SUCCESS);
    EXPECT_EQ(ThreadExitStatus(thread.get()), STATUS_DISK_FULL);
    EXPECT_EQ(counts.self, thread.get());
    EXPECT_EQ(counts.destroyed, 0);
    EXPECT_EQ(counts.cleanups, 0);
    EXPECT_EQ(JoinSystemThreads(), 1u);
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(ReferencesOf(thread.get()), 1);
}

TEST(HostThreads, OnlySystemThreadsTerminateThemselves) {
    EXPECT_EQ(PsTerminateSystemThread(STATUS_SUCCESS), STATUS_INVALID_PARAMETER);
    const PKTHREAD self = KeGetCurrentThread();
    EXPECT_EQ(self, KeGetCurrentThread());
    std::thread([self] { EXPECT_NE(self, KeGetCurrentThread()); }).join();
}

TEST(HostThreads, GateHoldsEachUntilItIsLetGo) {
    std::atomic<int> ran = 0;
    const auto routine = [](PVOID context) { static_cast<std::atomic<int>*>(context)->fetch_add(1); };
    std::vector<HANDLE> handles;
    {
        ThreadGate gate;
        for (int i = 0; i < 3; ++i) handles.push_back(Start(routine, &ran));
        EXPECT_EQ(gate.Held(), 3u);
        EXPECT_EQ(RunningSystemThreads(), 3u);
        EXPECT_EQ(ran.load(), 0);
        EXPECT_TRUE(gate.RunOne());
        EXPECT_EQ(ran.load(), 1);
        EXPECT_EQ(Wait(ThreadOf(handles[1]).get(), &Poll), STATUS_TIMEOUT);
    }
    JoinSystemThreads();
    EXPECT_EQ(ran.load(), 3);
    for (HANDLE handle : handles) EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
}

TEST(HostThreads, JoinSeesThreadsThatThreadsStart) {
    static std::atomic<int> ran;
    ran = 0;
    Start(
        [](PVOID) {
            Start(
                [](PVOID) {
                    std::this_thread::yield();
                    ran.fetch_add(1);
                },
                nullptr);
            ran.fetch_add(1);
        },
        nullptr);
    JoinSystemThreads();
    EXPECT_EQ(ran.load(), 2);
    CloseAllHandles();
}

TEST(HostThreads, InjectedFailureLeavesNothing) {
    FailCall(FaultBit(Fault::ThreadCreate), 1);
    HANDLE handle = reinterpret_cast<HANDLE>(8);
    EXPECT_EQ(PsCreateSystemThread(
                  &handle, 0, nullptr, nullptr, nullptr, [](PVOID) {}, nullptr),
              STATUS_INSUFFICIENT_RESOURCES);
    DisarmFaults();
    EXPECT_TRUE(OpenHandles().empty());
    EXPECT_EQ(RunningSystemThreads(), 0u);
}

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

// ---- objects and handles -----------------------------------------------------------------------------

struct Probe {
    int* destroyed;
    ~Probe() { ++*destroyed; }
};

TEST(HostHandles, KeepTheObjectAndTellOldFromNew) {
    int destroyed = 0;
    auto* first = MakeObject<Probe>(ObjectType::Other, &destroyed);
    const HANDLE stale = InsertHandle(first);
    ObfDereferenceObject(first);
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(ZwClose(stale), STATUS_SUCCESS);
    EXPECT_EQ(destroyed, 1);

    auto* second = MakeObject<Probe>(ObjectType::Key, &destroyed);
    const HANDLE handle = InsertHandle(second);
    EXPECT_NE(handle, stale);
    EXPECT_EQ(LookupHandle(stale), nullptr);
    EXPECT_EQ(LookupHandle(handle, ObjectType::File), nullptr);
    PVOID object = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, KvrThreadObjectType(), KernelMode, &object, nullptr),
              STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(ObReferenceObjectByHandle(stale, 0, nullptr, KernelMode, &object, nullptr),
              STATUS_INVALID_HANDLE);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(ReferencesOf(second), 2);
    ObfDereferenceObject(second);
    const auto open = OpenHandles();
    ASSERT_EQ(open.size(), 1u);
    EXPECT_EQ(open[0].handle, handle);
    EXPECT_EQ(open[0].type, ObjectType::Key);
    CloseAllHandles();
    EXPECT_EQ(destroyed, 2);
    EXPECT_TRUE(OpenHandles().empty());
}

TEST(HostHandles, UsedByManyThreadsAtOnce) {
    int destroyed = 0;
    auto* body = MakeObject<Probe>(ObjectType::Other, &destroyed);
    InParallel(4, [body](int) {
        for (int i = 0; i < 1000; ++i) {
            const HANDLE handle = InsertHandle(body);
            const ObjectRef<void> found(LookupHandle(handle));
            EXPECT_EQ(found.get(), body);
            EXPECT_TRUE(CloseHandle(handle));
        }
    });
    EXPECT_EQ(destroyed, 0);
    ObfDereferenceObject(body);
    EXPECT_EQ(destroyed, 1);
}

// ---- pool and diagnostics shared by threads ----------------------------------------------------------

TEST(HostPool, BlocksMoveBetweenThreads) {
    constexpr ULONG Tag = 0x5A5A5A5A;
    constexpr int Threads = 4, Rounds = 3000;
    std::atomic<void*> exchange[8] = {};
    InParallel(Threads, [&](int thread) {
        for (int i = 0; i < Rounds; ++i) {
            void* block = ExAllocatePoolWithTag(NonPagedPool, static_cast<SIZE_T>(i % 300), Tag);
            void* other = exchange[(i + thread) % 8].exchange(block);
            if (other != nullptr) ExFreePoolWithTag(other, Tag);
        }
    });
    ULONGLONG left = 0;
    for (auto& slot : exchange) left += slot.load() != nullptr ? 1 : 0;
    EXPECT_EQ(PoolUsage(Tag).blocks, left);
    PoolCheck();
    PoolReclaimAll();
    EXPECT_EQ(PoolUsage(Tag).blocks, 0u);
}

TEST(HostSink, LinesOfThreadsStayWhole) {
    const ULONGLONG mark = DebugMark();
    InParallel(3, [](int thread) {
        for (int i = 0; i < 300; ++i) DbgPrint("thread %d says %d\n", thread, thread);
    });
    const auto lines = DebugLinesSince(mark);
    EXPECT_EQ(lines.size(), 900u);
    for (const std::string& line : lines) EXPECT_EQ(line[7], line[14]) << line;
}

}  // namespace
