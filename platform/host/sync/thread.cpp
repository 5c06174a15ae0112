#include "platform/host/sync/thread.h"

#include <list>
#include <mutex>
#include <condition_variable>
#include <system_error>
#include <thread>

#include "platform/host/sync/current_thread.h"
#include "platform/host/sync/dispatcher.h"
#include "platform/host/nt/exception.h"
#include "platform/host/check/injector.h"
#include "platform/host/object/object.h"
#include "platform/host/check/verifier.h"

namespace host {

constinit thread_local PKTHREAD currentThread = nullptr;

namespace {

// How PsTerminateSystemThread leaves the thread's routine. As on the platform no TryFinally sees it.
struct ThreadExit {
    NTSTATUS status;
};

std::atomic<ULONG> threadCount;

PKTHREAD NewThread(bool system) {
    auto* thread = MakeObject<KTHREAD>(ObjectType::Thread);
    InitializeHeader(thread->Header, HostDispatcherType::Thread, false, 0);
    thread->IsSystemThread = system;
    thread->ExitStatus.store(STATUS_PENDING, std::memory_order_relaxed);
    thread->Number = threadCount.fetch_add(1, std::memory_order_relaxed) + 1;
    return thread;
}

// Ends the object of an adopted thread with the thread.
struct AdoptedThread {
    PKTHREAD thread = nullptr;
    ~AdoptedThread() {
        if (thread == nullptr) return;
        CheckQuiescent("the end of a thread");
        currentThread = nullptr;
        ObfDereferenceObject(thread);
    }
};

// ---- system threads that are not joined yet ----------------------------------------------------------
struct SystemThread {
    PKTHREAD thread;  // referenced
    std::thread worker;
};
std::mutex threadsLock;
std::list<SystemThread> systemThreads;

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
        const std::lock_guard guard(threadsLock);
        for (auto it = systemThreads.begin(); it != systemThreads.end();) {
            const auto next = std::next(it);
            if (HasEnded(*it)) ended.splice(ended.end(), systemThreads, it);
            it = next;
        }
    }
    Join(ended);
}

// ---- the gate ----------------------------------------------------------------------------------------
std::mutex gateLock;
std::condition_variable gateOpened;
bool gateClosed = false;
std::deque<PKTHREAD> gateQueue;  // not referenced: a held thread cannot end

void EnterGate(PKTHREAD thread) {
    const std::lock_guard guard(gateLock);
    if (gateClosed) gateQueue.push_back(thread);
}

bool InGate(PKTHREAD thread) {
    for (PKTHREAD held : gateQueue) {
        if (held == thread) return true;
    }
    return false;
}

void WaitAtGate(PKTHREAD thread) {
    std::unique_lock lock(gateLock);
    gateOpened.wait(lock, [thread] { return !InGate(thread); });
}

// The thread let go, referenced; null when none was held.
PKTHREAD LeaveGate() {
    const std::lock_guard guard(gateLock);
    if (gateQueue.empty()) return nullptr;
    PKTHREAD thread = gateQueue.front();
    gateQueue.pop_front();
    ObfReferenceObject(thread);
    gateOpened.notify_all();
    return thread;
}

void ForgetAtGate(PKTHREAD thread) {
    const std::lock_guard guard(gateLock);
    std::erase(gateQueue, thread);
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
    }
}

void ThreadMain(PKTHREAD thread) {
    currentThread = thread;
    WaitAtGate(thread);
    const NTSTATUS status = RunRoutine(thread);
    CheckQuiescent("the end of a system thread");
    thread->ExitStatus.store(status, std::memory_order_release);
    SignalHeader(thread->Header);
    currentThread = nullptr;
    ObfDereferenceObject(thread);
}

// `thread` comes with two references: the running thread's and that of the list.
bool StartThread(PKTHREAD thread) {
    EnterGate(thread);
    const std::lock_guard guard(threadsLock);
    try {
        systemThreads.push_back({thread, std::thread(ThreadMain, thread)});
        return true;
    } catch (const std::system_error&) {
        ForgetAtGate(thread);
        return false;
    }
}

}  // namespace

PKTHREAD AdoptCurrentThread() {
    static thread_local AdoptedThread adopted;
    adopted.thread = NewThread(false);
    currentThread = adopted.thread;
    return currentThread;
}

NTSTATUS ThreadExitStatus(PKTHREAD thread) {
    return thread->ExitStatus.load(std::memory_order_acquire);
}

ULONG JoinSystemThreads() {
    if (CurrentThread()->IsSystemThread) Violation("thread", "a system thread waits for its own end");
    ULONG count = 0;
    for (;;) {
        std::list<SystemThread> threads;
        {
            const std::lock_guard guard(gateLock);
            if (!gateQueue.empty()) Violation("thread", "JoinSystemThreads while a ThreadGate holds a thread");
        }
        {
            const std::lock_guard guard(threadsLock);
            threads.swap(systemThreads);
        }
        if (threads.empty()) return count;
        count += static_cast<ULONG>(threads.size());
        Join(threads);
    }
}

ULONG RunningSystemThreads() {
    const std::lock_guard guard(threadsLock);
    ULONG count = 0;
    for (const SystemThread& entry : systemThreads) count += HasEnded(entry) ? 0 : 1;
    return count;
}

ThreadGate::ThreadGate() {
    const std::lock_guard guard(gateLock);
    if (gateClosed) Violation("thread", "a second ThreadGate");
    gateClosed = true;
}

ThreadGate::~ThreadGate() {
    {
        const std::lock_guard guard(gateLock);
        gateClosed = false;
    }
    ReleaseAll();
}

ULONG ThreadGate::Held() const {
    const std::lock_guard guard(gateLock);
    return static_cast<ULONG>(gateQueue.size());
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

NTSTATUS PsCreateSystemThread(PHANDLE handle, ULONG, POBJECT_ATTRIBUTES, HANDLE, PVOID, PKSTART_ROUTINE routine,
                              PVOID context) {
    RequireIrql("PsCreateSystemThread", PASSIVE_LEVEL);
    if (InjectFault(Fault::ThreadCreate)) return STATUS_INSUFFICIENT_RESOURCES;
    JoinEnded();
    PKTHREAD thread = NewThread(true);
    thread->Routine = routine;
    thread->Context = context;
    ObfReferenceObject(thread);
    const HANDLE opened = InsertHandle(thread);
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
