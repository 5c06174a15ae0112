#include "platform/host/memory/pool.h"

#include <sched.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>

#include "platform/host/check/injector.h"
#include "platform/host/memory/pool_block.h"
#include "platform/host/check/verifier.h"

namespace host {
namespace {

// ---- balance per tag ---------------------------------------------------------------------------------
// Blocks above, bytes below in one word, so that an allocation costs one addition.
constexpr int ByteBits = 37;
constexpr ULONGLONG ByteMask = (1ULL << ByteBits) - 1;
constexpr SIZE_T LargestBlock = SIZE_T{1} << 36;
constexpr int MaxTags = 32;

struct alignas(64) TagBalance {
    std::atomic<ULONG> tag;
    std::atomic<ULONGLONG> use;
    std::atomic<ULONGLONG> peakBytes;
};
TagBalance balances[MaxTags];  // filled from the front

constexpr ULONGLONG UseOf(SIZE_T bytes) {
    return (1ULL << ByteBits) + bytes;
}

TagBalance* FindBalance(ULONG tag) {
    for (TagBalance& entry : balances) {
        const ULONG seen = entry.tag.load(std::memory_order_acquire);
        if (seen == tag) return &entry;
        if (seen == 0) return nullptr;
    }
    return nullptr;
}

TagBalance& BalanceOf(ULONG tag) {
    for (TagBalance& entry : balances) {
        ULONG seen = entry.tag.load(std::memory_order_acquire);
        if (seen == 0 && entry.tag.compare_exchange_strong(seen, tag)) return entry;
        if (seen == tag) return entry;
    }
    Violation("pool", "more than %d pool tags", MaxTags);
}

SIZE_T BytesInUse() {
    SIZE_T bytes = 0;
    for (const TagBalance& entry : balances) bytes += entry.use.load(std::memory_order_relaxed) & ByteMask;
    return bytes;
}

void AddUse(TagBalance& balance, SIZE_T bytes) {
    const ULONGLONG use = balance.use.fetch_add(UseOf(bytes), std::memory_order_relaxed) + UseOf(bytes);
    ULONGLONG peak = balance.peakBytes.load(std::memory_order_relaxed);
    while (peak < (use & ByteMask) &&
           !balance.peakBytes.compare_exchange_weak(peak, use & ByteMask, std::memory_order_relaxed)) {
    }
}

PoolBalance Read(const TagBalance& entry) {
    const ULONGLONG use = entry.use.load(std::memory_order_relaxed);
    return {entry.tag.load(std::memory_order_relaxed), use >> ByteBits, use & ByteMask,
            entry.peakBytes.load(std::memory_order_relaxed)};
}

// ---- the blocks that are outstanding -----------------------------------------------------------------
constexpr ULONG ShardCount = 16;

class ShardLock {
public:
    void lock() {
        while (held_.exchange(true, std::memory_order_acquire)) sched_yield();
    }
    void unlock() { held_.store(false, std::memory_order_release); }

private:
    std::atomic<bool> held_{false};
};

struct alignas(64) Shard {
    ShardLock lock;
    PoolBlock* first = nullptr;
};
Shard shards[ShardCount];

std::atomic<ULONG> nextShard;
thread_local ULONG threadShard = ShardCount;  // none yet

ULONG ShardOfThread() {
    if (threadShard == ShardCount) threadShard = nextShard.fetch_add(1, std::memory_order_relaxed) % ShardCount;
    return threadShard;
}

void Link(PoolBlock* block) {
    Shard& shard = shards[block->shard];
    const std::lock_guard guard(shard.lock);
    block->previous = nullptr;
    block->next = shard.first;
    if (shard.first != nullptr) shard.first->previous = block;
    shard.first = block;
}

void Unlink(PoolBlock* block) {
    Shard& shard = shards[block->shard];
    const std::lock_guard guard(shard.lock);
    PoolBlock*& before = block->previous != nullptr ? block->previous->next : shard.first;
    if (before != block || (block->next != nullptr && block->next->previous != block)) {
        Violation("pool", "block %p: its header was overwritten", block->Bytes());
    }
    before = block->next;
    if (block->next != nullptr) block->next->previous = block->previous;
}

// ---- options -----------------------------------------------------------------------------------------
std::atomic<bool> fill;
std::atomic<SIZE_T> quarantineLimit;
std::atomic<SIZE_T> poolLimit = NoPoolLimit;

std::mutex quarantineLock;
std::deque<PoolBlock*> quarantine;
SIZE_T quarantineBytes = 0;

void CheckStillFreed(PoolBlock* block) {
    if (const SIZE_T at = FindWrite(*block); at < block->bytes) {
        Violation("pool", "block %p of %zu bytes was written at offset %zu after it was freed", block->Bytes(),
                  block->bytes, at);
    }
}

void ShrinkQuarantine(SIZE_T limit) {
    while (quarantineBytes > limit) {
        PoolBlock* block = quarantine.front();
        quarantine.pop_front();
        quarantineBytes -= sizeof(PoolBlock) + block->bytes;
        CheckStillFreed(block);
        ReleaseBlock(block);
    }
}

void Discard(PoolBlock* block) {
    if (!fill.load(std::memory_order_relaxed)) return ReleaseBlock(block);
    std::memset(block->Bytes(), FreedFill, block->bytes);
    const std::lock_guard guard(quarantineLock);
    quarantine.push_back(block);
    quarantineBytes += sizeof(PoolBlock) + block->bytes;
    ShrinkQuarantine(quarantineLimit.load(std::memory_order_relaxed));
}

bool Refused(SIZE_T bytes) {
    if (InjectFault(Fault::Allocate) || bytes > LargestBlock) return true;
    const SIZE_T limit = poolLimit.load(std::memory_order_relaxed);
    return limit != NoPoolLimit && BytesInUse() + bytes > limit;
}

}  // namespace

void SetPoolOptions(const PoolOptions& options) {
    const std::lock_guard guard(quarantineLock);
    fill.store(options.fill, std::memory_order_relaxed);
    // The address sanitizer holds freed blocks back itself, and sees reads of them too.
    const bool hold = options.fill && !KVR_POOL_ASAN;
    quarantineLimit.store(hold ? options.quarantineBytes : 0, std::memory_order_relaxed);
    ShrinkQuarantine(quarantineLimit.load(std::memory_order_relaxed));
}

void SetPoolLimit(SIZE_T bytes) {
    poolLimit.store(bytes, std::memory_order_relaxed);
}

PoolBalance PoolUsage(ULONG tag) {
    const TagBalance* entry = FindBalance(tag);
    return entry != nullptr ? Read(*entry) : PoolBalance{tag, 0, 0, 0};
}

std::vector<PoolBalance> PoolUsage() {
    std::vector<PoolBalance> all;
    for (const TagBalance& entry : balances) {
        if (entry.tag.load(std::memory_order_acquire) != 0) all.push_back(Read(entry));
    }
    return all;
}

void ResetPoolPeaks() {
    for (TagBalance& entry : balances) {
        entry.peakBytes.store(entry.use.load(std::memory_order_relaxed) & ByteMask, std::memory_order_relaxed);
    }
}

void PoolCheck() {
    for (Shard& shard : shards) {
        const std::lock_guard guard(shard.lock);
        for (PoolBlock* block = shard.first; block != nullptr; block = block->next) CheckGuards(block);
    }
    const std::lock_guard guard(quarantineLock);
    for (PoolBlock* block : quarantine) CheckStillFreed(block);
}

std::vector<PoolBalance> PoolReclaimAll() {
    std::vector<PoolBalance> outstanding;
    for (const PoolBalance& balance : PoolUsage()) {
        if (balance.blocks != 0) outstanding.push_back(balance);
    }
    for (Shard& shard : shards) {
        while (shard.first != nullptr) ExFreePoolWithTag(shard.first->Bytes(), shard.first->tag);
    }
    return outstanding;
}

}  // namespace host

using namespace host;

PVOID ExAllocatePoolWithTag(POOL_TYPE type, SIZE_T bytes, ULONG tag) {
    RequireIrql("ExAllocatePoolWithTag", type == PagedPool ? APC_LEVEL : DISPATCH_LEVEL);
    if (tag == 0) Violation("pool", "an allocation of %zu bytes without a tag", bytes);
    if (Refused(bytes)) return nullptr;
    PoolBlock* block = ObtainBlock(bytes, tag, ShardOfThread());
    if (block == nullptr) return nullptr;
    if (fill.load(std::memory_order_relaxed)) std::memset(block->Bytes(), NewFill, bytes);
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
