#include "platform/host/memory/pool.h"

#include <sched.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <deque>

#include "platform/host/check/injector.h"
#include "platform/host/memory/pool_block.h"
#include "platform/host/check/verifier.h"
#include "platform/host/sync/host_lock.h"

namespace host {
namespace {

// ---- balance per tag ---------------------------------------------------------------------------------
// Blocks above, bytes below in one word, so that an allocation costs one addition.
constexpr int kByteBits = 37;
constexpr ULONGLONG kByteMask = (1ULL << kByteBits) - 1;
constexpr SIZE_T kLargestBlock = SIZE_T{1} << 36;
constexpr int kMaxTags = 32;

struct alignas(64) TagBalance {
    std::atomic<ULONG> tag;
    std::atomic<ULONGLONG> use;
    std::atomic<ULONGLONG> peakBytes;
};
TagBalance gBalances[kMaxTags];  // filled from the front

constexpr ULONGLONG UseOf(SIZE_T bytes) {
    return (1ULL << kByteBits) + bytes;
}

TagBalance* FindBalance(ULONG tag) {
    for (TagBalance& entry : gBalances) {
        const ULONG seen = entry.tag.load(std::memory_order_acquire);
        if (seen == tag) return &entry;
        if (seen == 0) return nullptr;
    }
    return nullptr;
}

TagBalance& BalanceOf(ULONG tag) {
    for (TagBalance& entry : gBalances) {
        ULONG seen = entry.tag.load(std::memory_order_acquire);
        if (seen == 0 && entry.tag.compare_exchange_strong(seen, tag)) return entry;
        if (seen == tag) return entry;
    }
    Violation("pool", "more than %d pool tags", kMaxTags);
}

SIZE_T BytesInUse() {
    SIZE_T bytes = 0;
    for (const TagBalance& entry : gBalances) bytes += entry.use.load(std::memory_order_relaxed) & kByteMask;
    return bytes;
}

void AddUse(TagBalance& balance, SIZE_T bytes) {
    const ULONGLONG use = balance.use.fetch_add(UseOf(bytes), std::memory_order_relaxed) + UseOf(bytes);
    ULONGLONG peak = balance.peakBytes.load(std::memory_order_relaxed);
    while (peak < (use & kByteMask) &&
           !balance.peakBytes.compare_exchange_weak(peak, use & kByteMask, std::memory_order_relaxed)) {
    }
}

PoolBalance Read(const TagBalance& entry) {
    const ULONGLONG use = entry.use.load(std::memory_order_relaxed);
    return {entry.tag.load(std::memory_order_relaxed), use >> kByteBits, use & kByteMask,
            entry.peakBytes.load(std::memory_order_relaxed)};
}

// ---- the blocks that are outstanding -----------------------------------------------------------------
constexpr ULONG kShardCount = 16;

class KVR_CAPABILITY("shard lock") ShardLock {
public:
    void lock() KVR_ACQUIRE() KVR_NO_ANALYSIS {
        while (held_.exchange(true, std::memory_order_acquire)) sched_yield();
    }
    void unlock() KVR_RELEASE() KVR_NO_ANALYSIS { held_.store(false, std::memory_order_release); }

private:
    std::atomic<bool> held_{false};
};

struct alignas(64) Shard {
    ShardLock lock;
    PoolBlock* first KVR_GUARDED_BY(lock) = nullptr;
};
Shard gShards[kShardCount];

std::atomic<ULONG> gNextShard;
thread_local ULONG gThreadShard = kShardCount;  // none yet

ULONG ShardOfThread() {
    if (gThreadShard == kShardCount)
        gThreadShard = gNextShard.fetch_add(1, std::memory_order_relaxed) % kShardCount;
    return gThreadShard;
}

void Link(PoolBlock* block) {
    Shard& shard = gShards[block->shard];
    const HostGuard guard(shard.lock);
    block->previous = nullptr;
    block->next = shard.first;
    if (shard.first != nullptr) shard.first->previous = block;
    shard.first = block;
}

void Unlink(PoolBlock* block) {
    Shard& shard = gShards[block->shard];
    const HostGuard guard(shard.lock);
    PoolBlock*& before = block->previous != nullptr ? block->previous->next : shard.first;
    if (before != block || (block->next != nullptr && block->next->previous != block)) {
        Violation("pool", "block %p: its header was overwritten", block->Bytes());
    }
    before = block->next;
    if (block->next != nullptr) block->next->previous = block->previous;
}

// Null when nothing of the shard is outstanding.
PoolBlock* FirstOf(Shard& shard) {
    const HostGuard guard(shard.lock);
    return shard.first;
}

// ---- options -----------------------------------------------------------------------------------------
std::atomic<bool> gFill;
std::atomic<SIZE_T> gQuarantineLimit;
std::atomic<SIZE_T> gPoolLimit = kNoPoolLimit;

std::atomic<ULONG> gExecutable;

HostLock gQuarantineLock;
std::deque<PoolBlock*> gQuarantine KVR_GUARDED_BY(gQuarantineLock);
SIZE_T gQuarantineBytes KVR_GUARDED_BY(gQuarantineLock) = 0;

void CheckStillFreed(PoolBlock* block) {
    if (const SIZE_T at = FindWrite(*block); at < block->bytes) {
        Violation("pool", "block %p of %zu bytes was written at offset %zu after it was freed", block->Bytes(),
                  block->bytes, at);
    }
}

void ShrinkQuarantine(SIZE_T limit) KVR_REQUIRES(gQuarantineLock) {
    while (gQuarantineBytes > limit) {
        PoolBlock* block = gQuarantine.front();
        gQuarantine.pop_front();
        gQuarantineBytes -= sizeof(PoolBlock) + block->bytes;
        CheckStillFreed(block);
        ReleaseBlock(block);
    }
}

void Discard(PoolBlock* block) {
    if (!gFill.load(std::memory_order_relaxed)) return ReleaseBlock(block);
    std::memset(block->Bytes(), kFreedFill, block->bytes);
    const HostGuard guard(gQuarantineLock);
    gQuarantine.push_back(block);
    gQuarantineBytes += sizeof(PoolBlock) + block->bytes;
    ShrinkQuarantine(gQuarantineLimit.load(std::memory_order_relaxed));
}

bool Refused(SIZE_T bytes) {
    if (InjectFault(Fault::Allocate) || bytes > kLargestBlock) return true;
    const SIZE_T limit = gPoolLimit.load(std::memory_order_relaxed);
    return limit != kNoPoolLimit && BytesInUse() + bytes > limit;
}

}  // namespace

void SetPoolOptions(const PoolOptions& options) {
    const HostGuard guard(gQuarantineLock);
    gFill.store(options.fill, std::memory_order_relaxed);
    // The address sanitizer holds freed blocks back itself, and sees reads of them too.
    const bool hold = options.fill && !KVR_POOL_ASAN;
    gQuarantineLimit.store(hold ? options.quarantineBytes : 0, std::memory_order_relaxed);
    ShrinkQuarantine(gQuarantineLimit.load(std::memory_order_relaxed));
}

void SetPoolLimit(SIZE_T bytes) {
    gPoolLimit.store(bytes, std::memory_order_relaxed);
}

PoolBalance PoolUsage(ULONG tag) {
    const TagBalance* entry = FindBalance(tag);
    return entry != nullptr ? Read(*entry) : PoolBalance{tag, 0, 0, 0};
}

std::vector<PoolBalance> PoolUsage() {
    std::vector<PoolBalance> all;
    for (const TagBalance& entry : gBalances) {
        if (entry.tag.load(std::memory_order_acquire) != 0) all.push_back(Read(entry));
    }
    return all;
}

void ResetPoolPeaks() {
    for (TagBalance& entry : gBalances) {
        entry.peakBytes.store(entry.use.load(std::memory_order_relaxed) & kByteMask, std::memory_order_relaxed);
    }
}

void PoolCheck() {
    for (Shard& shard : gShards) {
        const HostGuard guard(shard.lock);
        for (PoolBlock* block = shard.first; block != nullptr; block = block->next) CheckGuards(block);
    }
    const HostGuard guard(gQuarantineLock);
    for (PoolBlock* block : gQuarantine) CheckStillFreed(block);
}

ULONG ExecutableMemory() {
    return gExecutable.load(std::memory_order_relaxed);
}

void NoteExecutableMemory() {
    gExecutable.fetch_add(1, std::memory_order_relaxed);
}

std::vector<PoolBalance> PoolReclaimAll() {
    std::vector<PoolBalance> outstanding;
    for (const PoolBalance& balance : PoolUsage()) {
        if (balance.blocks != 0) outstanding.push_back(balance);
    }
    for (Shard& shard : gShards) {
        while (PoolBlock* block = FirstOf(shard)) ExFreePoolWithTag(block->Bytes(), block->tag);
    }
    return outstanding;
}

}  // namespace host

using namespace host;

PVOID ExAllocatePoolWithTag(POOL_TYPE type, SIZE_T bytes, ULONG tag) {
    if (type == PagedPool)
        RequirePageable("ExAllocatePoolWithTag of paged pool", APC_LEVEL);
    else
        RequireIrql("ExAllocatePoolWithTag", DISPATCH_LEVEL);
    if (tag == 0) Violation("pool", "an allocation of %zu bytes without a tag", bytes);
    if (type == NonPagedPool) NoteExecutableMemory();
    if (Refused(bytes)) return nullptr;
    PoolBlock* block = ObtainBlock(bytes, tag, ShardOfThread());
    if (block == nullptr) return nullptr;
    if (gFill.load(std::memory_order_relaxed)) std::memset(block->Bytes(), kNewFill, bytes);
    AddUse(BalanceOf(tag), bytes);
    Link(block);
    return block->Bytes();
}

void ExFreePoolWithTag(PVOID memory, ULONG tag) {
    RequireIrql("ExFreePoolWithTag", DISPATCH_LEVEL);
    if (memory == nullptr) Violation("pool", "a null pointer was freed with tag %s", TagText(tag).text);
    PoolBlock* block = PoolBlock::Of(memory);
    CheckGuards(block);
    if (block->tag != tag) {
        Violation("pool", "block %p of %zu bytes has tag %s and was freed with tag %s", memory, block->bytes,
                  TagText(block->tag).text, TagText(tag).text);
    }
    BalanceOf(tag).use.fetch_sub(UseOf(block->bytes), std::memory_order_relaxed);
    Unlink(block);
    MarkFreed(block);
    Discard(block);
}
