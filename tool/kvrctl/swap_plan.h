// Whether swap storage can be made on a volume, before anything starts.
#pragma once
#include <cstdint>
#include "tool/kvrctl/commands.h"
#include "tool/kvrctl/volumes.h"

namespace ctl {

struct SwapPlan {
    std::uint64_t swapBytes;      // in whole blocks
    std::uint64_t replacedBytes;  // of the storage that is there and goes
};

// Throws Failure for a volume on which nothing can be made or removed now: protected, in use by a client, or
// because a thread is at work already.
FixedVolume RequireChangeable(const Context& context, const KnownVolume& volume);
// ... nor made: removable, without a file system for it, without the room.
SwapPlan PlanSwap(const Context& context, const KnownVolume& volume, std::uint64_t size);

}  // namespace ctl
