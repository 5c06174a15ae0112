#include "platform/host/memory/pool_block.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "platform/host/memory/pool_memory.h"
#include "platform/host/check/verifier.h"

#if KVR_POOL_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace host {
namespace {

constexpr ULONG kLiveGuard = 0x4B76506C;
constexpr ULONG kFreedGuard = 0x46726565;
constexpr ULONGLONG kTailGuard = 0x7C7C7461696C7C7CULL;
constexpr SIZE_T kTailBytes = KVR_POOL_ASAN ? 0 : sizeof kTailGuard;

// Guards depend on the address, so that a copied header is not taken for a block.
ULONGLONG Guard(ULONGLONG value, const PoolBlock* block) {
    return value ^ reinterpret_cast<ULONG_PTR>(block);
}

ULONG FrontGuard(ULONG value, const PoolBlock* block) {
    return value ^ static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(block) / alignof(PoolBlock));
}

void SetTail(PoolBlock* block) {
    const ULONGLONG tail = Guard(kTailGuard, block);
    std::memcpy(static_cast<char*>(block->Bytes()) + block->bytes, &tail, kTailBytes);
}

bool TailIntact(PoolBlock* block) {
    const ULONGLONG tail = Guard(kTailGuard, block);
    return std::memcmp(static_cast<char*>(block->Bytes()) + block->bytes, &tail, kTailBytes) == 0;
}

}  // namespace

PoolBlock* ObtainBlock(SIZE_T bytes, ULONG tag, ULONG shard) {
    void* memory = TakePoolMemory(sizeof(PoolBlock) + bytes + kTailBytes);
    if (memory == nullptr) return nullptr;
    auto* block = new (memory) PoolBlock;
    block->bytes = bytes;
    block->tag = tag;
    block->shard = shard & 0xFF;
    block->guard = FrontGuard(kLiveGuard, block);
    SetTail(block);
#if KVR_POOL_ASAN
    ASAN_POISON_MEMORY_REGION(block->redZone, sizeof block->redZone);
#endif
    return block;
}

void ReleaseBlock(PoolBlock* block) {
#if KVR_POOL_ASAN
    ASAN_UNPOISON_MEMORY_REGION(block->redZone, sizeof block->redZone);
#endif
    GivePoolMemory(block, sizeof(PoolBlock) + block->bytes + kTailBytes);
}

void CheckGuards(PoolBlock* block) {
    if (block->guard == FrontGuard(kFreedGuard, block)) {
        Violation("pool", "block %p was freed before", block->Bytes());
    }
    if (block->guard != FrontGuard(kLiveGuard, block)) {
        Violation("pool", "%p is no pool block, or the bytes before it were overwritten", block->Bytes());
    }
    if (!TailIntact(block)) {
        Violation("pool", "block %p of %zu bytes, tag %s, was written beyond its end", block->Bytes(),
                  block->bytes, TagText(block->tag).text);
    }
}

void MarkFreed(PoolBlock* block) {
    // The compiler may drop a store to memory that is about to be freed; a second free looks for this one.
    *static_cast<volatile ULONG*>(&block->guard) = FrontGuard(kFreedGuard, block);
}

SIZE_T FindWrite(PoolBlock& block) {
    const auto* bytes = static_cast<const UCHAR*>(block.Bytes());
    SIZE_T at = 0;
    while (at < block.bytes && bytes[at] == kFreedFill) ++at;
    return at;
}

TagName TagText(ULONG tag) {
    TagName name{};
    char c[4];
    for (int i = 0; i < 4; ++i) {
        c[i] = static_cast<char>(tag >> (8 * i));
        if (c[i] < 0x20 || c[i] > 0x7E) {
            std::snprintf(name.text, sizeof name.text, "0x%08x", tag);
            return name;
        }
    }
    std::snprintf(name.text, sizeof name.text, "\"%.4s\"", c);
    return name;
}

}  // namespace host
