#include "platform/host/io/thread_io.h"
#include "platform/host/sync/host_lock.h"

namespace host {

constinit thread_local ThreadIo* gThreadIo = nullptr;

namespace {

HostLock gLock;
ThreadIo* gThreads KVR_GUARDED_BY(gLock) = nullptr;  // the first of the living threads' records
Outstanding gEnded KVR_GUARDED_BY(gLock);            // the shares of threads that have ended

void Add(Outstanding& sum, const ThreadIo& io) {
    sum.irps += io.irpCount.Read();
    sum.mdls += io.mdlCount.Read();
    sum.lockedMdls += io.lockedCount.Read();
}

void Unlink(const ThreadIo& io) KVR_REQUIRES(gLock) {
    ThreadIo** link = &gThreads;
    while (*link != &io) link = &(*link)->next;
    *link = io.next;
}

// The thread's record, with the thread's own storage and so without an allocation that could fail.
struct ListedIo {
    ThreadIo io;
    ListedIo() {
        const HostGuard guard(gLock);
        io.next = gThreads;
        gThreads = &io;
    }
    ~ListedIo() {
        FreeCachedIrps(io);
        FreeCachedMdls(io);
        const HostGuard guard(gLock);
        Add(gEnded, io);
        Unlink(io);
        gThreadIo = nullptr;
    }
    ListedIo(const ListedIo&) = delete;
    ListedIo& operator=(const ListedIo&) = delete;
};

}  // namespace

ThreadIo& MakeThreadIo() {
    static thread_local ListedIo own;
    gThreadIo = &own.io;
    return own.io;
}

Outstanding CountOutstanding() {
    const HostGuard guard(gLock);
    Outstanding sum = gEnded;
    for (const ThreadIo* io = gThreads; io != nullptr; io = io->next) Add(sum, *io);
    return sum;
}

}  // namespace host
