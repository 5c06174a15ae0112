// The pool behind ExAllocatePoolWithTag and ExFreePoolWithTag.
//
// Each block carries its tag and guards on both sides that are checked when it is freed; a damaged guard, a
// wrong tag or a second free stops. Blocks are linked in shards, one per thread as a rule, so that whatever
// is outstanding at power-off can be named and taken back, and the allocation path meets no shared lock.
// Under the address sanitizer the guards are the sanitizer's.
#pragma once
#include <vector>
#include "platform/host/nt/ntex.h"

namespace host {

struct PoolOptions {
    bool fill = false;           // new blocks read 0xCD until written, freed ones 0xDD
    SIZE_T quarantineBytes = 0;  // with `fill`: freed bytes held back; one that was written meanwhile stops
};
// Change them only while no other thread uses the pool.
void SetPoolOptions(const PoolOptions& options);

// Allocations fail while they would take the requested bytes outstanding, all tags together, above `bytes`.
inline constexpr SIZE_T kNoPoolLimit = ~SIZE_T{0};
void SetPoolLimit(SIZE_T bytes);

inline constexpr SIZE_T kPlatformPoolHeader = 16;  // what the platform's pool adds to a block
struct PoolBalance {
    ULONG tag;
    ULONGLONG blocks;
    ULONGLONG bytes;      // as requested
    ULONGLONG peakBytes;  // highest value of `bytes` since ResetPoolPeaks

    ULONGLONG PlatformBytes() const { return bytes + blocks * kPlatformPoolHeader; }
};
// Exact once the threads that allocate are quiet. A tag never seen reads as zeros.
PoolBalance PoolUsage(ULONG tag);
std::vector<PoolBalance> PoolUsage();  // every tag seen, in the order first seen
void ResetPoolPeaks();

// Blocks and mappings that were asked for as executable memory since the program began. Exact once the threads
// that ask are quiet.
ULONG ExecutableMemory();
void NoteExecutableMemory();

// Checks the guards of every block that is outstanding (and those held back) and stops at a damaged one.
void PoolCheck();

// Frees every block that is outstanding and returns what there was, per tag; tags with nothing are left out.
// No other thread may use the pool meanwhile, and nothing may touch the blocks afterwards.
std::vector<PoolBalance> PoolReclaimAll();

}  // namespace host
