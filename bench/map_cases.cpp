// The map itself: its memory, and the time to save and load it.
#include <algorithm>
#include <cstdio>
#include "bench/cases.h"
#include "bench/measure.h"
#include "platform/owners.h"
#include "platform/host/memory/pool.h"
#include "swap/map_boot.h"
#include "swap/map_format.h"
#include "swap/swap.h"

namespace bench {
namespace {

constexpr int kRepetitions = 3;

ULONG CountSwapped(PVOLUME_EXTENSION volume) {
    FastMutexLock lock(volume->SwapLock);
    ULONG count = 0;
    tree_walk(&volume->SwappedChunks, count_items, &count);
    return count;
}

double MedianSeconds(const std::function<double()>& once) {
    double seconds[kRepetitions];
    for (double& second : seconds) second = once() / 1e9;
    std::nth_element(seconds, seconds + kRepetitions / 2, seconds + kRepetitions);
    return seconds[kRepetitions / 2];
}

double Save(PVOLUME_EXTENSION volume) {
    volume->MapDirty = TRUE;
    const double start = ThreadTime();
    WriteSwapMap(volume->FilterDevice, TRUE);
    return ThreadTime() - start;
}

double Load(PVOLUME_EXTENSION volume) {
    ResetSwapMaps(volume->FilterDevice);
    const double start = ThreadTime();
    const NTSTATUS status = PreloadSwapMap(volume->FilterDevice);
    const double time = ThreadTime() - start;
    Require(NT_SUCCESS(status) && volume->SwapState == kSwapUsable, "the map is sound");
    Require(CountSwapped(volume) == kChunks, "the map has its million entries");
    return time;
}

// What the pool holds more with the map than without it.
double BytesPerChunk(PVOLUME_EXTENSION volume) {
    const ULONGLONG with = host::PoolUsage(kPoolTag).PlatformBytes();
    ResetSwapMaps(volume->FilterDevice);
    const ULONGLONG without = host::PoolUsage(kPoolTag).PlatformBytes();
    Load(volume);
    return static_cast<double>(with - without) / kChunks;
}

}  // namespace

void RegisterMapCases(Computer& computer) {
    PVOLUME_EXTENSION volume = computer.Record();
    Require(CountSwapped(volume) == kChunks, "the boot loaded a million chunks");
    RegisterFigure("pool per swapped chunk, headers of the platform's pool included", "bytes", 160,
                   [=] { return BytesPerChunk(volume); });
    RegisterFigure("save a map of 1,000,000 entries", "s", 1,
                   [=] { return MedianSeconds([=] { return Save(volume); }); });
    RegisterFigure("load a map of 1,000,000 entries", "s", 1,
                   [=] { return MedianSeconds([=] { return Load(volume); }); });
}

}  // namespace bench
