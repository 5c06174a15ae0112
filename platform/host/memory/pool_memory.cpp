#include "platform/host/memory/pool_memory.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

#include "platform/host/sync/host_lock.h"

// Sanitizers follow memory through the allocator, so there every block is one of its own; a build may ask for
// the same with KVR_POOL_PLAIN.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KVR_POOL_PLAIN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KVR_POOL_PLAIN 1
#endif
#endif
#ifndef KVR_POOL_PLAIN
#define KVR_POOL_PLAIN 0
#endif
#if !KVR_POOL_PLAIN
#include <sys/mman.h>
#endif

namespace host {

#if KVR_POOL_PLAIN

void* TakePoolMemory(SIZE_T bytes) {
    return std::malloc(bytes);
}

void GivePoolMemory(void* memory, SIZE_T) {
    std::free(memory);
}

#else

namespace {

constexpr SIZE_T kLargePage = SIZE_T{2} << 20;
constexpr SIZE_T kArenaBytes = 16 * kLargePage;
constexpr SIZE_T kStripBytes = SIZE_T{256} << 10;  // what a thread takes at a time to cut blocks from
constexpr SIZE_T kSmallStep = 16;                  // blocks up to kSmallMost come in steps of this
constexpr SIZE_T kSmallMost = 1024;
constexpr SIZE_T kLargestListed = SIZE_T{64} << 10;  // blocks above that come from the allocator
constexpr SIZE_T kListBytes = SIZE_T{64} << 10;      // what a thread's list of one size may hold
constexpr SIZE_T kLargestKept = SIZE_T{2} << 20;  // blocks above kLargestListed up to that are kept for a while
constexpr SIZE_T kKeptBytes = SIZE_T{32} << 20;   // as many of them in all
constexpr int kSmallClasses = kSmallMost / kSmallStep;
constexpr int kClasses = kSmallClasses + 24;
constexpr int kKeptClasses = 20;  // those above kLargestListed

struct FreeBlock {
    FreeBlock* next;
};

struct Strip {
    char* begin;
    char* end;
};

// Sizes above kSmallMost come in four steps per doubling.
struct SizeClass {
    int index;
    SIZE_T bytes;
};
SizeClass ClassOf(SIZE_T bytes) {
    if (bytes <= kSmallMost) {
        const SIZE_T steps = std::max<SIZE_T>((bytes + kSmallStep - 1) / kSmallStep, 1);
        return {static_cast<int>(steps) - 1, steps * kSmallStep};
    }
    const int doublings = 63 - __builtin_clzll((bytes - 1) / kSmallMost);  // of kSmallMost, below `bytes`
    const SIZE_T base = kSmallMost << doublings;
    const SIZE_T quarter = (bytes - base + base / 4 - 1) / (base / 4);
    return {kSmallClasses + doublings * 4 + static_cast<int>(quarter) - 1, base + quarter * (base / 4)};
}

// What all threads share: touched once per strip, and when a thread has far more of one size than it uses.
struct Shared {
    HostLock lock;
    Strip arena KVR_GUARDED_BY(lock){};
    std::vector<Strip> rests KVR_GUARDED_BY(lock);  // strips of threads that have ended
    FreeBlock* lists[kClasses] KVR_GUARDED_BY(lock) = {};
};
Shared& TheShared() {
    static Shared* shared = new Shared;  // threads may end after static objects
    return *shared;
}

// Empty when the host has no memory.
Strip NewStrip(Shared& shared) KVR_REQUIRES(shared.lock) {
    if (!shared.rests.empty()) {
        const Strip rest = shared.rests.back();
        shared.rests.pop_back();
        return rest;
    }
    if (shared.arena.begin == shared.arena.end) {
        void* memory = mmap(nullptr, kArenaBytes + kLargePage, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (memory == MAP_FAILED) return {};
        const auto start = reinterpret_cast<ULONG_PTR>(memory);
        char* aligned = static_cast<char*>(memory) + (kLargePage - start % kLargePage) % kLargePage;
        madvise(aligned, kArenaBytes, MADV_HUGEPAGE);  // without large pages it is slower, not wrong
        shared.arena = {aligned, aligned + kArenaBytes};
    }
    const Strip strip{shared.arena.begin, shared.arena.begin + kStripBytes};
    shared.arena.begin = strip.end;
    return strip;
}

struct ThreadMemory {
    struct List {
        FreeBlock* first = nullptr;
        SIZE_T bytes = 0;
    };
    List lists[kClasses];
    Strip strip{};

    ~ThreadMemory() {
        Shared& shared = TheShared();
        const HostGuard guard(shared.lock);
        for (int i = 0; i < kClasses; ++i) {
            while (FreeBlock* block = lists[i].first) {
                lists[i].first = block->next;
                block->next = shared.lists[i];
                shared.lists[i] = block;
            }
        }
        if (strip.begin != strip.end) shared.rests.push_back(strip);
    }

    void* Cut(SIZE_T bytes) {
        if (static_cast<SIZE_T>(strip.end - strip.begin) < bytes) return nullptr;
        void* memory = strip.begin;
        strip.begin += bytes;
        return memory;
    }

    // Blocks of the size that other threads gave back, or else a new strip.
    void* TakeShared(const SizeClass& size) {
        Shared& shared = TheShared();
        const HostGuard guard(shared.lock);
        FreeBlock*& list = shared.lists[size.index];
        if (FreeBlock* block = list) {
            list = block->next;
            for (SIZE_T moved = 0; list != nullptr && moved < kListBytes / 2; moved += size.bytes) {
                FreeBlock* more = list;
                list = more->next;
                Put(size, more);
            }
            return block;
        }
        // A rest may be too small for this size; it is small enough to be forgotten.
        for (;;) {
            strip = NewStrip(shared);
            if (strip.begin == nullptr) return nullptr;
            if (void* memory = Cut(size.bytes)) return memory;
        }
    }

    void Put(const SizeClass& size, void* memory) {
        auto* block = static_cast<FreeBlock*>(memory);
        List& list = lists[size.index];
        block->next = list.first;
        list.first = block;
        list.bytes += size.bytes;
    }

    void Shrink(const SizeClass& size) {
        Shared& shared = TheShared();
        List& list = lists[size.index];
        const HostGuard guard(shared.lock);
        while (list.bytes > kListBytes / 2 && list.first != nullptr) {
            FreeBlock* block = list.first;
            list.first = block->next;
            list.bytes -= size.bytes;
            block->next = shared.lists[size.index];
            shared.lists[size.index] = block;
        }
    }
};
// Behind a pointer: of a thread's own storage a library that is loaded late gets only a little.
constinit thread_local ThreadMemory* gThreadMemory = nullptr;

struct ThreadEnd {
    ~ThreadEnd() { delete std::exchange(gThreadMemory, nullptr); }
};

// Null when the host has no memory. What a thread makes after its end has begun stays with the process.
ThreadMemory* OwnMemory() {
    if (gThreadMemory != nullptr) return gThreadMemory;
    gThreadMemory = new (std::nothrow) ThreadMemory;
    static thread_local ThreadEnd end;
    return gThreadMemory;
}

void GiveShared(const SizeClass& size, void* memory) {
    Shared& shared = TheShared();
    const HostGuard guard(shared.lock);
    auto* block = static_cast<FreeBlock*>(memory);
    block->next = shared.lists[size.index];
    shared.lists[size.index] = block;
}

// Buffers of large transfers. The allocator would give their pages back to the host at once, and every transfer
// would have the host clear and map them again.
class KeptBlocks {
public:
    void* Take(const SizeClass& size) {
        {
            const HostGuard guard(lock_);
            FreeBlock*& list = lists_[size.index - kClasses];
            if (FreeBlock* block = list) {
                list = block->next;
                bytes_ -= size.bytes;
                return block;
            }
        }
        return std::malloc(size.bytes);
    }

    void Give(const SizeClass& size, void* memory) {
        {
            const HostGuard guard(lock_);
            if (bytes_ + size.bytes <= kKeptBytes) {
                auto* block = static_cast<FreeBlock*>(memory);
                block->next = lists_[size.index - kClasses];
                lists_[size.index - kClasses] = block;
                bytes_ += size.bytes;
                return;
            }
        }
        std::free(memory);
    }

private:
    HostLock lock_;
    FreeBlock* lists_[kKeptClasses] KVR_GUARDED_BY(lock_) = {};
    SIZE_T bytes_ KVR_GUARDED_BY(lock_) = 0;
};
KeptBlocks& TheKeptBlocks() {
    static KeptBlocks* blocks = new KeptBlocks;  // threads may end after static objects
    return *blocks;
}

void* TakeLarge(SIZE_T bytes) {
    return bytes > kLargestKept ? std::malloc(bytes) : TheKeptBlocks().Take(ClassOf(bytes));
}

void GiveLarge(void* memory, SIZE_T bytes) {
    bytes > kLargestKept ? std::free(memory) : TheKeptBlocks().Give(ClassOf(bytes), memory);
}

}  // namespace

void* TakePoolMemory(SIZE_T bytes) {
    if (bytes > kLargestListed) return TakeLarge(bytes);
    const SizeClass size = ClassOf(bytes);
    ThreadMemory* const own = OwnMemory();
    if (own == nullptr) return nullptr;
    ThreadMemory::List& list = own->lists[size.index];
    if (FreeBlock* block = list.first) {
        list.first = block->next;
        list.bytes -= size.bytes;
        return block;
    }
    if (void* memory = own->Cut(size.bytes)) return memory;
    return own->TakeShared(size);
}

void GivePoolMemory(void* memory, SIZE_T bytes) {
    if (bytes > kLargestListed) return GiveLarge(memory, bytes);
    const SizeClass size = ClassOf(bytes);
    ThreadMemory* const own = OwnMemory();
    if (own == nullptr) return GiveShared(size, memory);
    own->Put(size, memory);
    if (own->lists[size.index].bytes > kListBytes) own->Shrink(size);
}

#endif

}  // namespace host
