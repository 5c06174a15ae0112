#include "platform/host/io/thread_io.h"
#include <vector>
#include "platform/host/sync/host_lock.h"

namespace host {

constinit thread_local ThreadIo* gThreadIo = nullptr;

namespace {

HostLock gLock;
std::vector<ThreadIo*> gThreads KVR_GUARDED_BY(gLock);
Outstanding gEnded KVR_GUARDED_BY(gLock);  // the shares of threads that have ended

void Add(Outstanding& sum, const ThreadIo& io) {
    sum.irps += io.irpCount.Read();
    sum.mdls += io.mdlCount.Read();
    sum.lockedMdls += io.lockedCount.Read();
}

// Takes the thread's record away when the thread ends.
struct ThreadEnd {
    ThreadIo* io = nullptr;
    ~ThreadEnd() {
        if (io == nullptr) return;
        FreeCachedIrps(*io);
        FreeCachedMdls(*io);
        const HostGuard guard(gLock);
        Add(gEnded, *io);
        std::erase(gThreads, io);
        gThreadIo = nullptr;
        delete io;
    }
};
thread_local ThreadEnd gThreadEnd;

}  // namespace

ThreadIo& MakeThreadIo() {
    auto* io = new ThreadIo;
    const HostGuard guard(gLock);
    gThreads.push_back(io);
    gThreadEnd.io = io;
    gThreadIo = io;
    return *io;
}

Outstanding CountOutstanding() {
    const HostGuard guard(gLock);
    Outstanding sum = gEnded;
    for (const ThreadIo* io : gThreads) Add(sum, *io);
    return sum;
}

}  // namespace host
