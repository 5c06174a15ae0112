#include "swap/map_format.h"
#include "platform/owners.h"
#include "swap/map_runs.h"

namespace {

// Room for the run at MapRunIndex, zeroed. Without it nothing more is stored.
[[nodiscard]] bool BeginRun(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    volume->MapEntryCount = 0;
    volume->MapBufferSize = CurrentRun(volume)->ulLength;
    volume->MapBuffer = NewBuffer(volume->MapBufferSize).Release();
    if (!volume->MapBuffer) return false;
    RtlZeroMemory(volume->MapBuffer, volume->MapBufferSize);
    return true;
}

void EndRuns(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    if (volume->MapBuffer) FreePool(volume->MapBuffer);
    volume->MapBuffer = nullptr;
    volume->MapBufferSize = 0;
    volume->MapEntryCount = 0;
}

// `buffer` goes to `offset` on the volume, which is the saved map's.
[[nodiscard]] NTSTATUS WriteMapBytes(PVOLUME_EXTENSION volume, PVOID buffer, ULONG length, LONGLONG offset) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    LARGE_INTEGER position;
    position.QuadPart = offset;
    return TransferSectors(IRP_MJ_WRITE, volume->Target, buffer, length, &position, &iosb, &event);
}

// The runs behind this one hold an older map, which must not be taken for this one's end: the run is
// zeroed with the buffer at hand, piece by piece, as far as the volume goes: what the registry says of its
// length is not to be relied on.
void ZeroCurrentRun(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    const MAP_LOCATION_ENTRY* run = CurrentRun(volume);
    const auto piece = static_cast<ULONG>(volume->MapBufferSize);
    RtlZeroMemory(volume->MapBuffer, piece);
    for (ULONG done = 0; done < run->ulLength;) {
        const ULONG length = run->ulLength - done < piece ? run->ulLength - done : piece;
        if (!NT_SUCCESS(WriteMapBytes(volume, volume->MapBuffer, length, RunOffset(volume, run) + done)))
            return;
        done += length;
    }
}

// The next run's buffer takes the place of the last one's. The save ends here when there is no memory for it;
// a later one tries again.
void NextRun(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    UCHAR* last = volume->MapBuffer;
    const ULONG64 lastSize = volume->MapBufferSize;
    if (IsUsableRun(CurrentRun(volume)) && BeginRun(volume)) {
        FreePool(last);
        return;
    }
    volume->MapBuffer = last;
    volume->MapBufferSize = lastSize;
    if (IsUsableRun(CurrentRun(volume))) {
        ZeroCurrentRun(volume);
        volume->MapDirty = TRUE;
    }
    EndRuns(volume);
}

// FALSE when there is nothing to write, or nowhere.
BOOLEAN FlushMapBuffer(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    const bool nowhere = !volume->MapLocation || volume->MapRunIndex >= MapRunCount(volume);
    if (volume->MapEntryCount == 0 || !volume->MapBuffer || nowhere) {
        volume->MapEntryCount = 0;
        return FALSE;
    }
    const MAP_LOCATION_ENTRY* run = CurrentRun(volume);
    KVR_DISCARD(WriteMapBytes(volume, volume->MapBuffer, run->ulLength, RunOffset(volume, run)),
                "a map that could not be written whole is found damaged, or old, at the next boot");
    volume->MapEntryCount = 0;
    ++volume->MapRunIndex;
    if (volume->MapRunIndex < MapRunCount(volume)) NextRun(volume);
    return TRUE;
}

// An all-zero run behind the last filled one is where a reader stops.
void WriteMapTerminator(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    if (!volume->MapLocation || !volume->MapBuffer || volume->MapRunIndex >= MapRunCount(volume)) return;
    RtlZeroMemory(volume->MapBuffer, volume->MapBufferSize);
    volume->MapEntryCount = 1;
    KVR_DISCARD(FlushMapBuffer(volume), "there is something to write, and somewhere");
}

// Stores one entry. An offset that an entry cannot name is left out: cut, it would name another place. A space
// that is left out is lost until the storage is made anew.
void StoreEntry(PVOLUME_EXTENSION volume, ULONG64 volumeSector, ULONG64 swapSector, ULONG sectors)
    KVR_REQUIRES(volume->SwapLock) {
    if (!volume->MapBuffer || volumeSector > kFreeSpaceMark || swapSector > 0xFFFFFFFF) return;
    auto* entry = reinterpret_cast<SWAP_MAP_ENTRY*>(volume->MapBuffer) + volume->MapEntryCount;
    entry->ulVolumeSector = static_cast<ULONG>(volumeSector);
    entry->ulSwapSector = static_cast<ULONG>(swapSector);
    entry->ulSectors = sectors & kMostMapSectors;
    SealMapEntry(entry);
    ++volume->MapEntryCount;
    if ((ULONG64{volume->MapEntryCount} + 1) * sizeof(SWAP_MAP_ENTRY) > volume->MapBufferSize)
        KVR_DISCARD(FlushMapBuffer(volume), "behind the last run the entries go nowhere");
}

ULONG64 SectorOf(PVOLUME_EXTENSION volume, LARGE_INTEGER offset) {
    return static_cast<ULONG64>(offset.QuadPart / volume->BytesPerSector);
}

// The three visitors run under SwapLock, which the analysis cannot see through the walk's callback.
ULONG store_swapped_chunks(PVOID record, PVOID context) KVR_NO_ANALYSIS {
    const auto* chunk = static_cast<const SWAPPED_CHUNK*>(record);
    auto* volume = static_cast<PVOLUME_EXTENSION>(context);
    if (!chunk || chunk->bVolatile != 0) return 0;
    const ULONG64 sector = SectorOf(volume, chunk->liVolumeOffset);
    if (sector == kFreeSpaceMark) return 0;
    StoreEntry(volume, sector, SectorOf(volume, chunk->liSwapOffset), chunk->uLength / volume->BytesPerSector);
    return 0;
}

ULONG store_volatile_chunks(PVOID record, PVOID context) KVR_NO_ANALYSIS {
    const auto* chunk = static_cast<const SWAPPED_CHUNK*>(record);
    auto* volume = static_cast<PVOLUME_EXTENSION>(context);
    if (!chunk || chunk->bVolatile == 0) return 0;
    StoreEntry(volume, kFreeSpaceMark, SectorOf(volume, chunk->liSwapOffset),
               chunk->uLength / volume->BytesPerSector);
    return 0;
}

ULONG store_free_chunks(PVOID record, PVOID context) KVR_NO_ANALYSIS {
    const auto* chunk = static_cast<const FREE_CHUNK*>(record);
    auto* volume = static_cast<PVOLUME_EXTENSION>(context);
    if (!chunk) return 0;
    StoreEntry(volume, kFreeSpaceMark, SectorOf(volume, chunk->liSwapOffset),
               chunk->uLength / volume->BytesPerSector);
    return 0;
}

// What the swapped chunks are, found out in one walk.
struct SWAPPED_COUNT {
    ULONG Chunks;  // what count_items adds to
    ULONG Volatile;
};

ULONG count_swapped_chunks(PVOID record, PVOID context) {
    auto* count = static_cast<SWAPPED_COUNT*>(context);
    if (record && static_cast<const SWAPPED_CHUNK*>(record)->bVolatile != 0) ++count->Volatile;
    return count_items(record, &count->Chunks);
}

// A walk over a large map costs more in memory accesses than its entries do, so it is left out when it would
// store nothing.
void StoreTrees(PVOLUME_EXTENSION volume, const SWAPPED_COUNT& swapped, ULONG free)
    KVR_REQUIRES(volume->SwapLock) {
    DbgPrint("Kvr!SerializeSwapMap: storage s%d + f%d\n", swapped.Chunks, free);
    tree_walk(&volume->SwappedChunks, store_swapped_chunks, volume);
    if (swapped.Volatile != 0) tree_walk(&volume->SwappedChunks, store_volatile_chunks, volume);
    tree_walk(&volume->FreeChunks, store_free_chunks, volume);
    KVR_DISCARD(FlushMapBuffer(volume), "the last run may have been filled to its end");
    WriteMapTerminator(volume);
    EndRuns(volume);
}

bool CanBeSaved(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    return volume->MapDirty && volume->MapLocation && MapRunCount(volume) != 0 && volume->BytesPerSector != 0 &&
           volume->SwapState == kSwapUsable;
}

}  // namespace

NTSTATUS WriteSwapMap(PDEVICE_OBJECT device, BOOLEAN force) {
    PVOLUME_EXTENSION volume = VolumeOf(device);
    if (volume->SwapState != kSwapUsable) return STATUS_SUCCESS;
    const bool forced = force && volume->MapLocation;
    if (!forced && !volume->SwapFile && !volume->SwapAllocating) return STATUS_SUCCESS;
    KVR_DISCARD(SerializeSwapMap(device), "it has no other result than success");
    DbgPrint("Kvr!WriteSwapMap: Saved\n");
    return STATUS_SUCCESS;
}

NTSTATUS SerializeSwapMap(PDEVICE_OBJECT device) {
    PVOLUME_EXTENSION volume = VolumeOf(device);
    if (!volume->MapDirty || !volume->MapLocation) return STATUS_SUCCESS;
    FastMutexLock lock(volume->SwapLock);
    if (!CanBeSaved(volume)) return STATUS_SUCCESS;  // looked at again: now nothing can change
    volume->MapDirty = FALSE;
    ULONG free = 0;
    SWAPPED_COUNT swapped = {};
    tree_walk(&volume->FreeChunks, count_items, &free);
    tree_walk(&volume->SwappedChunks, count_swapped_chunks, &swapped);
    volume->MapRunIndex = 0;
    if (IsUsableRun(CurrentRun(volume)) && BeginRun(volume)) StoreTrees(volume, swapped, free);
    DbgPrint("Kvr!SerializeSwapMap: map sectors written: %d\n", volume->MapRunIndex);
    volume->MapEntryCount = 0;
    volume->MapRunIndex = 0;
    return STATUS_SUCCESS;
}
