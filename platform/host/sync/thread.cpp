#include "platform/host/sync/thread.h"

#include <deque>
#include <list>
#include <system_error>
#include <thread>

#include "platform/host/sync/current_thread.h"
#include "platform/host/sync/dispatcher.h"
#include "platform/host/sync/host_lock.h"
#include "platform/host/nt/exception.h"
#include "platform/host/check/injector.h"
#include "platform/host/object/object.h"
#include "platform/host/check/host_memory.h"
#include "platform/host/check/verifier.h"

namespace host {

constinit thread_local PKTHREAD gCurrentThread = nullptr;

namespace {

// How PsTerminateSystemThread leaves the thread's routine. As on the platform no TryFinally sees it.
struct ThreadExit {
    NTSTATUS status;
};

std::atomic<ULONG> gThreadCount;

std::atomic<ULONG> gLivingSystemThreads;

// Counts as living until nobody refers to it any more.
struct SystemThreadObject : KTHREAD {
    SystemThreadObject() : KTHREAD{} { gLivingSystemThreads.fetch_add(1, std::memory_order_relaxed); }
    ~SystemThreadObject() { gLivingSystemThreads.fetch_sub(1, std::memory_order_relaxed); }
};

PKTHREAD NewThread(bool system) {
    PKTHREAD thread =
        system ? MakeObject<SystemThreadObject>(ObjectType::Thread) : MakeObject<KTHREAD>(ObjectType::Thread);
    InitializeHeader(thread->Header, HostDispatcherType::Thread, false, 0);
    thread->IsSystemThread = system;
    thread->ExitStatus.store(STATUS_PENDING, std::memory_order_relaxed);
    thread->Number = gThreadCount.fetch_add(1, std::memory_order_relaxed) + 1;
    return thread;
}

// Ends the object of an adopted thread with the thread.
struct AdoptedThread {
    PKTHREAD thread = nullptr;
    ~AdoptedThread() {
        if (thread == nullptr) return;
        CheckQuiescent("the end of a thread");
        gCurrentThread = nullptr;
        ObfDereferenceObject(thread);
    }
};

// ---- system threads that are not joined yet ----------------------------------------------------------
struct SystemThread {
    PKTHREAD thread;  // referenced
    std::thread worker;
};
HostLock gThreadsLock;
std::list<SystemThread> gSystemThreads KVR_GUARDED_BY(gThreadsLock);

bool HasEnded(const SystemThread& entry) {
    return entry.thread->ExitStatus.load(std::memory_order_acquire) != STATUS_PENDING;
}

void Join(std::list<SystemThread>& threads) {
    for (SystemThread& entry : threads) {
        entry.worker.join();
        ObfDereferenceObject(entry.thread);
    }
}

// So that a driver that starts many short threads does not pile them up until power-off.
void JoinEnded() {
    std::list<SystemThread> ended;
    {
        const HostGuard guard(gThreadsLock);
        for (auto it = gSystemThreads.begin(); it != gSystemThreads.end();) {
            const auto next = std::next(it);
            if (HasEnded(*it)) ended.splice(ended.end(), gSystemThreads, it);
            it = next;
        }
    }
    Join(ended);
}

// ---- the gate ----------------------------------------------------------------------------------------
HostLock gGateLock;
HostCondition gGateOpened;
bool gGateClosed KVR_GUARDED_BY(gGateLock) = false;
std::deque<PKTHREAD> gGateQueue KVR_GUARDED_BY(gGateLock);  // not referenced: a held thread cannot end

void EnterGate(PKTHREAD thread) {
    const HostGuard guard(gGateLock);
    if (gGateClosed) gGateQueue.push_back(thread);
}

bool InGate(PKTHREAD thread) KVR_REQUIRES(gGateLock) {
    for (PKTHREAD held : gGateQueue) {
        if (held == thread) return true;
    }
    return false;
}

void WaitAtGate(PKTHREAD thread) {
    const HostGuard guard(gGateLock);
    while (InGate(thread)) gGateOpened.Wait(gGateLock);
}

// The thread let go, referenced; null when none was held.
PKTHREAD LeaveGate() {
    const HostGuard guard(gGateLock);
    if (gGateQueue.empty()) return nullptr;
    PKTHREAD thread = gGateQueue.front();
    gGateQueue.pop_front();
    ObfReferenceObject(thread);
    gGateOpened.WakeAll();
    return thread;
}

void ForgetAtGate(PKTHREAD thread) {
    const HostGuard guard(gGateLock);
    std::erase(gGateQueue, thread);
}

// ---- a thread's life ---------------------------------------------------------------------------------
NTSTATUS RunRoutine(PKTHREAD thread) {
    try {
        thread->Routine(thread->Context);
        return STATUS_SUCCESS;
    } catch (const ThreadExit& exit) {
        return exit.status;
    } catch (const KernelException& exception) {
        Violation("exception", "exception %08x left the routine of thread %u",
                  static_cast<unsigned>(exception.status), thread->Number);
    } catch (const std::bad_alloc&) {
        Violation("host memory", "none in the routine of thread %u", thread->Number);
    }
}

void ThreadMain(PKTHREAD thread) {
    gCurrentThread = thread;
    WaitAtGate(thread);
    const NTSTATUS status = RunRoutine(thread);
    CheckQuiescent("the end of a system thread");
    thread->ExitStatus.store(status, std::memory_order_release);
    SignalHeader(thread->Header);
    gCurrentThread = nullptr;
    ObfDereferenceObject(thread);
}

// `thread` comes with two references: the running thread's and that of the list.
bool StartThread(PKTHREAD thread) {
    EnterGate(thread);
    const HostGuard guard(gThreadsLock);
    const SIZE_T before = gSystemThreads.size();
    const bool started = WithinMemory(false, [&]() KVR_REQUIRES(gThreadsLock) {
        gSystemThreads.push_back({thread, {}});
        gSystemThreads.back().worker = std::thread(ThreadMain, thread);
        return true;
    });
    if (started) return true;
    if (gSystemThreads.size() > before) gSystemThreads.pop_back();
    ForgetAtGate(thread);
    return false;
}

}  // namespace

PKTHREAD AdoptCurrentThread() {
    static thread_local AdoptedThread adopted;
    adopted.thread = NewThread(false);
    gCurrentThread = adopted.thread;
    return gCurrentThread;
}

ULONG JoinSystemThreads() {
    if (CurrentThread()->IsSystemThread) Violation("thread", "a system thread waits for its own end");
    ULONG count = 0;
    for (;;) {
        std::list<SystemThread> threads;
        {
            const HostGuard guard(gGateLock);
            if (!gGateQueue.empty()) Violation("thread", "JoinSystemThreads while a ThreadGate holds a thread");
        }
        {
            const HostGuard guard(gThreadsLock);
            threads.swap(gSystemThreads);
        }
        if (threads.empty()) return count;
        count += static_cast<ULONG>(threads.size());
        Join(threads);
    }
}

ULONG LivingSystemThreads() {
    return gLivingSystemThreads.load(std::memory_order_relaxed);
}

ULONG RunningSystemThreads() {
    const HostGuard guard(gThreadsLock);
    ULONG count = 0;
    for (const SystemThread& entry : gSystemThreads) count += HasEnded(entry) ? 0 : 1;
    return count;
}

ThreadGate::ThreadGate() {
    const HostGuard guard(gGateLock);
    if (gGateClosed) Violation("thread", "a second ThreadGate");
    gGateClosed = true;
}

ThreadGate::~ThreadGate() {
    {
        const HostGuard guard(gGateLock);
        gGateClosed = false;
    }
    ReleaseAll();
}

ULONG ThreadGate::Held() const {
    const HostGuard guard(gGateLock);
    return static_cast<ULONG>(gGateQueue.size());
}

bool ThreadGate::Release() {
    const ObjectRef<KTHREAD> thread(LeaveGate());
    return static_cast<bool>(thread);
}

bool ThreadGate::RunOne() {
    const ObjectRef<KTHREAD> thread(LeaveGate());
    if (!thread) return false;
    return KeWaitForSingleObject(thread.get(), Executive, KernelMode, FALSE, nullptr) == STATUS_SUCCESS;
}

void ThreadGate::ReleaseAll() {
    while (Release()) {
    }
}

}  // namespace host

using namespace host;

PKTHREAD KeGetCurrentThread() {
    return CurrentThread();
}

NTSTATUS PsCreateSystemThread(PHANDLE handle, ULONG, POBJECT_ATTRIBUTES attributes, HANDLE, PVOID,
                              PKSTART_ROUTINE routine, PVOID context) {
    RequirePageable("PsCreateSystemThread", PASSIVE_LEVEL);
    if (attributes != nullptr &&
        (attributes->Length != sizeof(*attributes) || attributes->Attributes != OBJ_KERNEL_HANDLE))
        Violation("thread", "a system thread's handle that a process could use");
    if (InjectFault(Fault::ThreadCreate)) return STATUS_INSUFFICIENT_RESOURCES;
    JoinEnded();
    ObjectRef<KTHREAD> made;
    HANDLE opened = nullptr;
    const NTSTATUS status = WithinMemory([&] {
        made = ObjectRef<KTHREAD>(NewThread(true));
        opened = InsertHandle(made.get());
        return STATUS_SUCCESS;
    });
    if (!NT_SUCCESS(status)) return status;
    PKTHREAD thread = made.release();
    thread->Routine = routine;
    thread->Context = context;
    ObfReferenceObject(thread);
    if (!StartThread(thread)) {
        CloseHandle(opened);
        ObfDereferenceObject(thread);
        ObfDereferenceObject(thread);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *handle = opened;
    return STATUS_SUCCESS;
}

NTSTATUS PsTerminateSystemThread(NTSTATUS status) {
    if (!CurrentThread()->IsSystemThread) return STATUS_INVALID_PARAMETER;
    CheckQuiescent("PsTerminateSystemThread");
    throw ThreadExit{status};
}
