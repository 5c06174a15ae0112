// Threads of the host kernel. Each thread of the process that calls into the kernel has a KTHREAD, made at
// its first call; PsCreateSystemThread makes threads of the driver, which are known until JoinSystemThreads
// has seen them end.
#pragma once
#include "platform/host/sync/sync.h"
#include "platform/host/nt/ntzw.h"

struct HeldLock {
    const void* lock;
    const char* name;  // null without a rank
    ULONG rank;
    KIRQL irql;       // the level to return to
    KIRQL lockLevel;  // the level that holding it demands
};

// A dispatcher object (its header comes first) and a reference-counted object (see object.h).
struct KTHREAD {
    DISPATCHER_HEADER Header;
    KIRQL Irql;
    bool IsSystemThread;
    bool IsAtLastChance;  // serves a last-chance shutdown notification
    int HeldCount;
    HeldLock Held[host::kMaxHeldLocks];
    std::atomic<NTSTATUS> ExitStatus;  // STATUS_PENDING until the thread has ended
    ULONG Number;                      // from 1, for messages
    PKSTART_ROUTINE Routine;
    PVOID Context;
};

namespace host {

// Waits until every system thread has ended, those that they start meanwhile included. Must not be called by
// a system thread, nor while a ThreadGate holds one back. Returns how many it waited for.
ULONG JoinSystemThreads();
ULONG RunningSystemThreads();
// Those that run and those that have ended but that a handle or a reference still keeps.
ULONG LivingSystemThreads();

// While one lives, every new system thread is held before its first instruction until it is let go, so that
// a test decides what happens between PsCreateSystemThread and the thread's first step. One at a time.
// The destructor lets all go.
class ThreadGate {
public:
    ThreadGate();
    ~ThreadGate();
    ThreadGate(const ThreadGate&) = delete;
    ThreadGate& operator=(const ThreadGate&) = delete;

    // Exact as soon as PsCreateSystemThread has returned.
    ULONG Held() const;
    // Lets the thread go that was created first; false when none is held.
    bool Release();
    // Lets it go and waits until it has ended.
    bool RunOne();
    void ReleaseAll();
};

}  // namespace host
