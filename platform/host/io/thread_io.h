// What each thread keeps for the request path: free requests and MDLs, the dispatch routines it is in, and its
// share of the counts. Only the owning thread writes here, so nothing of it is locked; the counts are atomics
// because a report reads them from another thread. A request freed by a thread other than the one that made it
// moves between caches, so a single thread's count may be negative; the sum is exact.
#pragma once
#include "platform/host/io/irp.h"

namespace host {

struct HostMdl;

// One dispatch routine that this thread has entered and not left. The completion of the request marks it.
struct CallFrame {
    CallFrame* previous;
    PIRP irp;
    CCHAR location;
    bool completed = false;  // this thread completed the request past `location`
    bool pending = false;    // and found it marked pending there
    NTSTATUS status = 0;     // and its status was this
};

// A count that one thread changes and any thread reads.
class OwnCount {
public:
    void Add(long n) { value_.store(value_.load(std::memory_order_relaxed) + n, std::memory_order_relaxed); }
    long Read() const { return value_.load(std::memory_order_relaxed); }

private:
    std::atomic<long> value_{0};
};

// Sanitizers follow memory through the allocator, so there nothing is cached.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr unsigned kCacheLimit = 0;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr unsigned kCacheLimit = 0;
#else
inline constexpr unsigned kCacheLimit = 64;
#endif
#else
inline constexpr unsigned kCacheLimit = 64;
#endif

template <class T>
struct FreeList {
    T* first = nullptr;
    unsigned count = 0;

    T* Take() {
        T* item = first;
        if (item != nullptr) {
            first = item->NextFree;
            --count;
        }
        return item;
    }
    bool Put(T* item) {
        if (count >= kCacheLimit) return false;
        item->NextFree = first;
        first = item;
        ++count;
        return true;
    }
};

inline constexpr CCHAR kIrpSizes[] = {4, 8, 16};  // stack locations of the cached sizes

struct ThreadIo {
    ThreadIo* next = nullptr;
    CallFrame* frames = nullptr;
    FreeList<HostIrp> irps[sizeof(kIrpSizes)];
    FreeList<HostMdl> mdls;
    OwnCount irpCount, mdlCount, lockedCount;
};

extern constinit thread_local ThreadIo* gThreadIo;
ThreadIo& MakeThreadIo();
inline ThreadIo& ThisThreadIo() {
    ThreadIo* io = gThreadIo;
    return io != nullptr ? *io : MakeThreadIo();
}

// The caches of MDLs are emptied where MDLs are known.
void FreeCachedMdls(ThreadIo& io);
void FreeCachedIrps(ThreadIo& io);

}  // namespace host
