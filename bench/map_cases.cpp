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

double MedianSeconds(const std::function<double()>& once) {
    double seconds[kRepetitions];
    for (double& second : seconds) second = once() / 1e9;
    std::nth_element(seconds, seconds + kRepetitions / 2, seconds + kRepetitions);
    return seconds[kRepetitions / 2];
}

}  // namespace

ULONG CountSwapped(PVOLUME_EXTENSION volume) {
    FastMutexLock lock(volume->SwapLock);
    ULONG count = 0;
    tree_walk(&volume->SwappedChunks, count_items, &count);
    return count;
}

double SaveMap(PVOLUME_EXTENSION volume) {
    volume->MapDirty = TRUE;
    const double start = ThreadTime();
    WriteSwapMap(volume->FilterDevice, TRUE);
    return ThreadTime() - start;
}

double LoadMap(PVOLUME_EXTENSION volume, ULONG chunks) {
    ResetSwapMaps(volume->FilterDevice);
    const double start = ThreadTime();
    const NTSTATUS status = PreloadSwapMap(volume->FilterDevice);
    const double time = ThreadTime() - start;
    Require(NT_SUCCESS(status) && volume->SwapState == kSwapUsable, "the map is sound");
    Require(CountSwapped(volume) == chunks, "the map has all its entries");
    return time;
}

double BytesPerChunk(PVOLUME_EXTENSION volume, ULONG chunks) {
    const ULONGLONG with = host::PoolUsage(kPoolTag).PlatformBytes();
    ResetSwapMaps(volume->FilterDevice);
    const ULONGLONG without = host::PoolUsage(kPoolTag).PlatformBytes();
    LoadMap(volume, chunks);
    return static_cast<double>(with - without) / chunks;
}

void RegisterMapCases(Computer& computer) {
    PVOLUME_EXTENSION volume = computer.Record();
    const ULONG chunks = computer.Places().Chunks();
    Require(CountSwapped(volume) == chunks, "the boot loaded a million chunks");
    RegisterFigure("pool per swapped chunk, headers of the platform's pool included", "bytes", 160,
                   [=] { return BytesPerChunk(volume, chunks); });
    RegisterFigure("save a map of 1,000,000 entries", "s", 1,
                   [=] { return MedianSeconds([=] { return SaveMap(volume); }); });
    RegisterFigure("load a map of 1,000,000 entries", "s", 1,
                   [=] { return MedianSeconds([=] { return LoadMap(volume, chunks); }); });
}

}  // namespace bench
