// Events, kernel mutexes and waits. The encoding of a dispatcher object's word stands in ntke.h.
#include "platform/host/sync/dispatcher.h"

#include <algorithm>

#include "platform/host/sync/clock.h"
#include "platform/host/sync/futex.h"
#include "platform/host/sync/lock_order.h"
#include "platform/host/sync/wait_work.h"
#include "platform/host/check/verifier.h"

namespace host {
namespace {

constexpr LONG kSignalled = 1;
constexpr LONG kSleepers = 2;
constexpr LONG kFlags = kSignalled | kSleepers;
constexpr ULONG kOneSet = 4;

constexpr LONG kMutexFree = 0;
constexpr LONG kMutexHeld = 1;
constexpr LONG kMutexContended = 2;

constexpr LONGLONG kNanosecondsPerTick = 100;
constexpr LONGLONG kNanosecondsPerSecond = 1'000'000'000;
constexpr LONGLONG kLongestWaitTicks = 1000LL * 365 * kTicksPerDay;

// The end of a wait on the monotonic clock.
class Deadline {
public:
    explicit Deadline(const LARGE_INTEGER* timeout) : limited_(timeout != nullptr) {
        if (!limited_) return;
        LONGLONG ticks = timeout->QuadPart > 0 ? timeout->QuadPart - SystemTime() : -timeout->QuadPart;
        ticks = std::clamp(ticks / WaitDivisor(), 0LL, kLongestWaitTicks);
        clock_gettime(CLOCK_MONOTONIC, &at_);
        const LONGLONG nanoseconds = at_.tv_nsec + ticks % kTicksPerSecond * kNanosecondsPerTick;
        at_.tv_sec += ticks / kTicksPerSecond + nanoseconds / kNanosecondsPerSecond;
        at_.tv_nsec = nanoseconds % kNanosecondsPerSecond;
    }
    const timespec* get() const { return limited_ ? &at_ : nullptr; }

private:
    bool limited_;
    timespec at_{};
};

// Takes the signal, or marks the object as slept on; `seen` is then the word to sleep on. An object that was
// set and cleared again since `start` satisfies a wait on a notification object, which the platform would have
// released at the set. `slept`: others may sleep too, and the mark that would wake them is gone.
bool TryTakeSignal(DISPATCHER_HEADER& header, LONG start, bool slept, LONG& seen) {
    std::atomic<LONG>& word = header.SignalState;
    seen = word.load(std::memory_order_acquire);
    for (;;) {
        if ((seen & kSignalled) != 0) {
            if (!header.Synchronization) return true;
            const LONG taken = (seen & ~kSignalled) | (slept ? kSleepers : 0);
            if (word.compare_exchange_weak(seen, taken, std::memory_order_acquire)) return true;
            continue;
        }
        if (!header.Synchronization && (seen & ~kFlags) != (start & ~kFlags)) return true;
        if ((seen & kSleepers) != 0) return false;
        if (word.compare_exchange_weak(seen, seen | kSleepers, std::memory_order_acquire)) {
            seen |= kSleepers;
            return false;
        }
    }
}

// What the thread waits for may come of its own work.
void WorkBeforeSleeping(const DISPATCHER_HEADER& header) {
    while ((header.SignalState.load(std::memory_order_acquire) & kSignalled) == 0 && DoWaitWork()) {
    }
}

NTSTATUS WaitForSignal(DISPATCHER_HEADER& header, const LARGE_INTEGER* timeout) {
    const LONG start = header.SignalState.load(std::memory_order_acquire);
    LONG seen = 0;
    if (TryTakeSignal(header, start, false, seen)) return STATUS_SUCCESS;
    const Deadline deadline(timeout);
    for (;;) {
        const bool late = !futex::Wait(header.SignalState, seen, deadline.get());
        if (TryTakeSignal(header, start, true, seen)) return STATUS_SUCCESS;
        if (late) return STATUS_TIMEOUT;
    }
}

bool AcquireMutexWord(std::atomic<LONG>& word, const LARGE_INTEGER* timeout) {
    LONG expected = kMutexFree;
    if (word.compare_exchange_strong(expected, kMutexHeld, std::memory_order_acquire)) return true;
    const Deadline deadline(timeout);
    for (;;) {
        if (word.exchange(kMutexContended, std::memory_order_acquire) == kMutexFree) return true;
        // Late means that no wake-up was spent on this thread: leaving strands nobody.
        if (!futex::Wait(word, kMutexContended, deadline.get())) return false;
    }
}

NTSTATUS WaitForMutex(KMUTEX& mutex, const LARGE_INTEGER* timeout) {
    KTHREAD& thread = *CurrentThread();
    RequireIrql("KeWaitForSingleObject on a mutex", PASSIVE_LEVEL);
    if (mutex.Owner.load(std::memory_order_relaxed) == &thread) {
        ++mutex.Recursion;
        return STATUS_SUCCESS;
    }
    CheckLockOrder(thread, mutex.Rank, mutex.Name);
    if (!AcquireMutexWord(mutex.Header.SignalState, timeout)) return STATUS_TIMEOUT;
    mutex.Owner.store(&thread, std::memory_order_relaxed);
    mutex.Recursion = 1;
    PushLock(thread, &mutex, mutex.Rank, mutex.Name, PASSIVE_LEVEL);
    return STATUS_SUCCESS;
}

DISPATCHER_HEADER& EventHeader(PRKEVENT event, const char* routine) {
    if (event->Header.Type != HostDispatcherType::Event) {
        Violation("event", "%s: %p is not an initialised event", routine, static_cast<void*>(event));
    }
    return event->Header;
}

}  // namespace

void InitializeHeader(DISPATCHER_HEADER& header, HostDispatcherType type, bool synchronization, LONG word) {
    header.Type = type;
    header.Synchronization = synchronization;
    header.SignalState.store(word, std::memory_order_relaxed);
}

bool SignalHeader(DISPATCHER_HEADER& header) {
    const bool one = header.Synchronization != 0;
    std::atomic<LONG>* word = &header.SignalState;
    LONG seen = word->load(std::memory_order_relaxed);
    LONG set = 0;
    do {
        set = static_cast<LONG>((static_cast<ULONG>(seen & ~kFlags) + kOneSet) | kSignalled);
    } while (!word->compare_exchange_weak(seen, set, std::memory_order_release, std::memory_order_relaxed));
    // From here on the object may be gone: only its address is used.
    if ((seen & kSleepers) != 0) one ? futex::WakeOne(word) : futex::WakeAll(word);
    return (seen & kSignalled) != 0;
}

}  // namespace host

using namespace host;

void KeInitializeEvent(PRKEVENT event, EVENT_TYPE type, BOOLEAN state) {
    InitializeHeader(event->Header, HostDispatcherType::Event, type == SynchronizationEvent,
                     state ? kSignalled : 0);
}

LONG KeSetEvent(PRKEVENT event, KPRIORITY, BOOLEAN wait) {
    DISPATCHER_HEADER& header = EventHeader(event, "KeSetEvent");
    RequireIrql("KeSetEvent", DISPATCH_LEVEL);
    if (wait) Violation("event", "KeSetEvent with Wait: the wait that must follow cannot be checked");
    return SignalHeader(header) ? 1 : 0;
}

void KeClearEvent(PRKEVENT event) {
    EventHeader(event, "KeClearEvent").SignalState.fetch_and(~kSignalled, std::memory_order_relaxed);
}

LONG KeReadStateEvent(PRKEVENT event) {
    return EventHeader(event, "KeReadStateEvent").SignalState.load(std::memory_order_acquire) & kSignalled;
}

void KeInitializeMutex(PRKMUTEX mutex, ULONG) {
    const LockRank rank = DeclaredRank(mutex);
    InitializeHeader(mutex->Header, HostDispatcherType::Mutex, true, kMutexFree);
    mutex->Owner.store(nullptr, std::memory_order_relaxed);
    mutex->Recursion = 0;
    mutex->Rank = rank.rank;
    mutex->Name = rank.name;
}

LONG KeReleaseMutex(PRKMUTEX mutex, BOOLEAN wait) {
    KTHREAD& thread = *CurrentThread();
    if (mutex->Header.Type != HostDispatcherType::Mutex) {
        Violation("mutex", "KeReleaseMutex: %p is not an initialised mutex", static_cast<void*>(mutex));
    }
    if (mutex->Owner.load(std::memory_order_relaxed) != &thread) {
        Violation("mutex", "thread %u releases %p, which it does not hold", thread.Number,
                  static_cast<void*>(mutex));
    }
    if (wait) Violation("mutex", "KeReleaseMutex with Wait: the wait that must follow cannot be checked");
    const LONG former = 1 - mutex->Recursion;
    if (--mutex->Recursion > 0) return former;
    PopLock(thread, mutex, "KeReleaseMutex");
    mutex->Owner.store(nullptr, std::memory_order_relaxed);
    std::atomic<LONG>* word = &mutex->Header.SignalState;
    if (word->exchange(kMutexFree, std::memory_order_release) == kMutexContended) futex::WakeOne(word);
    return former;
}

NTSTATUS KeWaitForSingleObject(PVOID object, KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER timeout) {
    const bool poll = timeout != nullptr && timeout->QuadPart == 0;
    RequireIrql("KeWaitForSingleObject", poll ? DISPATCH_LEVEL : APC_LEVEL);
    auto& header = *static_cast<DISPATCHER_HEADER*>(object);
    switch (header.Type) {
        case HostDispatcherType::Event:
        case HostDispatcherType::Thread:
            if (!poll) WorkBeforeSleeping(header);
            return WaitForSignal(header, timeout);
        case HostDispatcherType::Mutex:
            return WaitForMutex(*static_cast<KMUTEX*>(object), timeout);
        case HostDispatcherType::None:
            break;
    }
    Violation("wait", "%p is not an initialised event, mutex or thread", object);
}
