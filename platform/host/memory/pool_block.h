// A pool block in memory: header, front guard, the bytes handed out, tail guard. For pool.cpp.
//
// Without the address sanitizer both guards are values that are checked when the block is freed; the front
// guard is next to the bytes, so that even one byte before them counts. With it the guard stands in front of
// a red zone that the sanitizer watches, and it watches the end of the block by itself.
#pragma once
#include "platform/host/nt/ntdef.h"

#if defined(__SANITIZE_ADDRESS__)
#define KVR_POOL_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KVR_POOL_ASAN 1
#endif
#endif
#ifndef KVR_POOL_ASAN
#define KVR_POOL_ASAN 0
#endif

namespace host {

inline constexpr int kNewFill = 0xCD;
inline constexpr int kFreedFill = 0xDD;

struct alignas(16) PoolBlock {
    PoolBlock* next;
    PoolBlock* previous;
    SIZE_T bytes : 56;
    SIZE_T shard : 8;
    ULONG tag;
    ULONG guard;
#if KVR_POOL_ASAN
    UCHAR redZone[16];
#endif

    void* Bytes() {
        return this + 1;
    }
    static PoolBlock* Of(void* bytes) {
        return static_cast<PoolBlock*>(bytes) - 1;
    }
};
static_assert(KVR_POOL_ASAN || offsetof(PoolBlock, guard) + sizeof(ULONG) == sizeof(PoolBlock));

// With both guards set and the fields given filled in; null when the host has no memory.
PoolBlock* ObtainBlock(SIZE_T bytes, ULONG tag, ULONG shard);
void ReleaseBlock(PoolBlock* block);

// Stops when the block was freed before, was never one, or was written beyond its ends.
void CheckGuards(PoolBlock* block);
// From now on CheckGuards knows the block as freed, until its memory is used again.
void MarkFreed(PoolBlock* block);
// The first byte of a freed block that is not kFreedFill any more, or its size.
SIZE_T FindWrite(PoolBlock& block);

struct TagName {
    char text[12];
};
TagName TagText(ULONG tag);

}  // namespace host
