#include "swap/map_read.h"
#include "swap/chunk_index.h"
#include "swap/chunk_maps.h"
#include "swap/map_format.h"
#include "swap/swap_ranges.h"

namespace {

constexpr ULONG64 kLastOffset = 0x7FFFFFFFFFFFFFFF;

// An entry in bytes.
struct ENTRY_RANGE {
    LONGLONG volumeOffset;
    LONGLONG swapOffset;
    ULONG length;
};

// False for a range that no volume can have.
[[nodiscard]] bool Decode(const SWAP_MAP_ENTRY* entry, ULONG unit, ENTRY_RANGE* range) {
    const ULONG64 volumeOffset = IsFreeEntry(entry) ? 0 : ULONG64{entry->ulVolumeSector} * unit;
    const ULONG64 swapOffset = ULONG64{entry->ulSwapSector} * unit;
    const ULONG64 length = ULONG64{entry->ulSectors} * unit;
    if (length == 0 || length > 0xFFFFFFFF) return false;
    if (volumeOffset > kLastOffset - length || swapOffset > kLastOffset - length) return false;
    *range = {static_cast<LONGLONG>(volumeOffset), static_cast<LONGLONG>(swapOffset),
              static_cast<ULONG>(length)};
    return true;
}

// The first byte behind everything that is redirected.
LONGLONG EndOfRedirections(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    TREE_NODE* node = volume->SwappedChunks.Root;
    while (node->Right != &TreeNil) node = node->Right;
    return node == &TreeNil ? 0 : ChunkEnd(static_cast<const SWAPPED_CHUNK*>(node->Record));
}

bool IsAnyRedirected(PVOLUME_EXTENSION volume, LONGLONG offset, ULONG length) KVR_REQUIRES(volume->SwapLock) {
    const ChunkCursor chunk(volume, offset);
    return chunk && chunk->liVolumeOffset.QuadPart < offset + length;
}

// `end` is EndOfRedirections before and after. A map is written in ascending order, so most entries need no
// search.
NTSTATUS LoadSwappedEntry(PVOLUME_EXTENSION volume, const ENTRY_RANGE& range, LONGLONG* end)
    KVR_REQUIRES(volume->SwapLock) {
    if (range.volumeOffset < *end && IsAnyRedirected(volume, range.volumeOffset, range.length))
        return STATUS_INVALID_PARAMETER;
    const NTSTATUS status = RecordSwappedChunk(volume, range.volumeOffset, range.swapOffset, range.length, 0);
    if (!NT_SUCCESS(status)) return status;
    if (range.volumeOffset + range.length > *end) *end = range.volumeOffset + range.length;
    return STATUS_SUCCESS;
}

NTSTATUS LoadFreeEntry(PVOLUME_EXTENSION volume, const ENTRY_RANGE& range) KVR_REQUIRES(volume->SwapLock) {
    if (tree_find(&volume->FreeChunks, &range.swapOffset)) return STATUS_INVALID_PARAMETER;
    return RecordFreeChunk(volume, range.swapOffset, range.length);
}

NTSTATUS LoadEntry(PVOLUME_EXTENSION volume, const SWAP_MAP_ENTRY* entry, LONGLONG* end)
    KVR_REQUIRES(volume->SwapLock) {
    ENTRY_RANGE range;
    if (!VerifyMapEntry(entry) || !Decode(entry, volume->BytesPerSector, &range))
        return STATUS_INVALID_PARAMETER;
    const NTSTATUS status =
        IsFreeEntry(entry) ? LoadFreeEntry(volume, range) : LoadSwappedEntry(volume, range, end);
    if (status != STATUS_INVALID_PARAMETER)
        ReportLoss(status, __LINE__, "Kvr!DeserializeSwapMap [%d] STATUS_INSUFFICIENT_RESOURCES\n",
                   "Kvr!DeserializeSwapMap [%d] STATUS_UNSUCCESSFUL\n");
    return status;
}

NTSTATUS LoadRun(PVOLUME_EXTENSION volume, const UCHAR* run, ULONG64 size) KVR_REQUIRES(volume->SwapLock) {
    const auto* entries = reinterpret_cast<const SWAP_MAP_ENTRY*>(run);
    const ULONG64 slots = run ? size / sizeof(SWAP_MAP_ENTRY) : 0;
    LONGLONG end = EndOfRedirections(volume);
    bool found = false;
    for (ULONG64 i = 0; i < slots; ++i) {
        if (IsEmptySlot(&entries[i])) continue;
        const NTSTATUS status = LoadEntry(volume, &entries[i], &end);
        if (!NT_SUCCESS(status)) return status;
        found = true;
    }
    return found ? STATUS_SUCCESS : STATUS_END_OF_FILE;
}

bool HasOverlap(const ULONG64* ranges, ULONG count) {
    for (ULONG i = 1; i < count; ++i)
        if (FirstSectorOf(ranges[i - 1]) + SectorsOf(ranges[i - 1]) > FirstSectorOf(ranges[i])) return true;
    return false;
}

}  // namespace

NTSTATUS DeserializeSwapMap(PDEVICE_OBJECT device) {
    PVOLUME_EXTENSION volume = VolumeOf(device);
    FastMutexLock lock(volume->SwapLock);
    return LoadRun(volume, volume->MapBuffer, volume->MapBufferSize);
}

NTSTATUS VerifySwapRanges(PVOLUME_EXTENSION volume, ULONG count) {
    if (count == 0 || volume->BytesPerSector == 0) return STATUS_SUCCESS;
    const PoolPtr<ULONG64> ranges = SortedSwapRanges(volume, SWAP_RANGES::All, count);
    if (!ranges) return STATUS_INSUFFICIENT_RESOURCES;
    return HasOverlap(ranges.Get(), count) ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
}

bool IsStorageRedirected(PVOLUME_EXTENSION volume) {
    TREE* free = &volume->FreeChunks;
    for (ChunkCursor chunk(volume); chunk; chunk.Next())
        if (IsAnyRedirected(volume, chunk->liSwapOffset.QuadPart, chunk->uLength)) return true;
    for (TREE_NODE* node = tree_first(free, free->Root); node; node = tree_next(free, node)) {
        const auto* chunk = static_cast<const FREE_CHUNK*>(node->Record);
        if (IsAnyRedirected(volume, chunk->liSwapOffset.QuadPart, chunk->uLength)) return true;
    }
    const ULONG runs = volume->MapLocation ? volume->ulMapLocationLength / sizeof(MAP_LOCATION_ENTRY) : 0;
    for (ULONG r = 0; r < runs; ++r) {
        const MAP_LOCATION_ENTRY& run = volume->MapLocation[r];
        if (IsAnyRedirected(volume, RunOffset(run, volume->BytesPerSector), run.ulLength)) return true;
    }
    return false;
}
