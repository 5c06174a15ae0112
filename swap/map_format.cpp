#include "swap/map_format.h"
#include "config/protected_volumes.h"
#include "driver/record/hardening.h"
#include "driver/record/requests.h"
#include "driver/record/sector_io.h"
#include "swap/chunk_index.h"
#include "swap/map_writer.h"

namespace {

constexpr LONGLONG kMapSaveInterval = 300000000;  // 30 seconds, in 100 ns

// A redirection that does not outlast the boot is saved as free space, and so is one that the map cannot name.
bool IsKept(const SWAPPED_CHUNK* chunk, LONGLONG limit) {
    return chunk->bVolatile == 0 && chunk->liVolumeOffset.QuadPart < limit;
}

ULONG store_swapped_chunks(PVOID record, PVOID writer) {
    const auto* chunk = static_cast<const SWAPPED_CHUNK*>(record);
    auto* map = static_cast<MapWriter*>(writer);
    if (chunk && IsKept(chunk, map->Limit()))
        map->Store(chunk->liVolumeOffset.QuadPart, chunk->liSwapOffset.QuadPart, chunk->uLength);
    return 0;
}

ULONG store_volatile_chunks(PVOID record, PVOID writer) {
    const auto* chunk = static_cast<const SWAPPED_CHUNK*>(record);
    auto* map = static_cast<MapWriter*>(writer);
    if (chunk && !IsKept(chunk, map->Limit())) map->StoreFree(chunk->liSwapOffset.QuadPart, chunk->uLength);
    return 0;
}

ULONG store_free_chunks(PVOID record, PVOID writer) {
    const auto* chunk = static_cast<const FREE_CHUNK*>(record);
    if (chunk) static_cast<MapWriter*>(writer)->StoreFree(chunk->liSwapOffset.QuadPart, chunk->uLength);
    return 0;
}

// What the swapped chunks are, found out in one walk.
struct SWAPPED_COUNT {
    ULONG Chunks;  // what count_items adds to
    bool AllKept;
    LONGLONG Limit;
};

ULONG count_swapped_chunks(PVOID record, PVOID context) {
    auto* count = static_cast<SWAPPED_COUNT*>(context);
    if (record && !IsKept(static_cast<const SWAPPED_CHUNK*>(record), count->Limit)) count->AllKept = false;
    return count_items(record, &count->Chunks);
}

// A walk over a large map costs more in memory accesses than its entries do, so it is left out when it would
// store nothing.
// False when the save did not begin.
bool StoreTrees(PVOLUME_EXTENSION volume, MapWriter& writer) KVR_REQUIRES(volume->SwapLock) {
    ULONG free = 0;
    SWAPPED_COUNT swapped = {0, true, writer.Limit()};
    tree_walk(&volume->FreeChunks, count_items, &free);
    WalkSwappedChunks(volume, count_swapped_chunks, &swapped);
    if (!writer.Begin()) return false;
    DbgPrint("Kvr!SerializeSwapMap: storage s%d + f%d\n", swapped.Chunks, free);
    WalkSwappedChunks(volume, store_swapped_chunks, &writer);
    if (!swapped.AllKept) WalkSwappedChunks(volume, store_volatile_chunks, &writer);
    tree_walk(&volume->FreeChunks, store_free_chunks, &writer);
    writer.End();
    return true;
}

bool HasMapPlace(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    return volume->MapLocation && volume->ulMapLocationLength >= sizeof(MAP_LOCATION_ENTRY) &&
           volume->BytesPerSector != 0;
}

// Under gHardening a protected volume whose files are not held keeps a true map: until its writes are refused
// they change trees and swap as always.
bool IsSavedInItsState(PVOLUME_EXTENSION volume) {
    const ULONG state = volume->SwapState;
    return state == kSwapUsable || (state == kSwapFilesNotHeld && gHardening && volume->IsProtected);
}

bool CanBeSaved(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    return volume->MapDirty && !volume->MapReadFailed && HasMapPlace(volume) && IsSavedInItsState(volume);
}

// What the map says now is not on the disk: the next occasion saves again. No name is printed: at the last
// chance what converts it may be gone.
void ReportUnsaved(PVOLUME_EXTENSION volume, NTSTATUS status) {
    volume->MapDirty = TRUE;
    DbgPrint("Kvr!SerializeSwapMap: the map of 0x%08x is not saved, 0x%08x: to be tried again\n",
             TraceAddress(volume->FilterDevice), status);
}

void SaveTrees(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    volume->MapDirty = FALSE;
    MapWriter writer(volume);
    const bool begun = StoreTrees(volume, writer);
    if (writer.IsCut() || (gHardening && !begun)) volume->MapDirty = TRUE;
    if (!NT_SUCCESS(writer.Status())) ReportUnsaved(volume, writer.Status());
    DbgPrint("Kvr!SerializeSwapMap: map sectors written: %d\n", writer.RunsWritten());
}

NTSTATUS SpoilSavedMap(PVOLUME_EXTENSION volume) {
    FastMutexLock lock(volume->SwapLock);
    if (!HasMapPlace(volume) || !IsUsableRun(volume->MapLocation)) return STATUS_SUCCESS;  // none is read there
    volume->MapDirty = TRUE;
    return MapWriter(volume).Spoil();
}

}  // namespace

NTSTATUS WriteSwapMap(PDEVICE_OBJECT device, BOOLEAN force) {
    PVOLUME_EXTENSION volume = VolumeOf(device);
    if (volume->MapRetireDue) RetireSavedMap(volume);
    if (!IsSavedInItsState(volume)) return STATUS_SUCCESS;
    const bool forced = force && volume->MapLocation;
    if (!forced && !volume->SwapFile && !volume->SwapAllocating) return STATUS_SUCCESS;
    KVR_DISCARD(SerializeSwapMap(device), "it has no other result than success");
    DbgPrint("Kvr!WriteSwapMap: Saved\n");
    return STATUS_SUCCESS;
}

// A last time in the future is that of a clock that was set back since.
void SaveMapWhenDue(PVOLUME_EXTENSION volume) {
    // A save that a power cut tears would leave the volume unprotected, and the next boot wants none of it.
    if (gHardening && IsDroppedAtNextBoot(volume)) return;
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    LONGLONG last = volume->LastMapSaveTime;
    if (now.QuadPart >= last && now.QuadPart <= last + kMapSaveInterval) return;
    if (!volume->LastMapSaveTime.compare_exchange_strong(last, now.QuadPart)) return;
    KVR_DISCARD(WriteSwapMap(volume->FilterDevice, FALSE), "a save that fails is made up for by the next one");
}

NTSTATUS SerializeSwapMap(PDEVICE_OBJECT device) {
    PVOLUME_EXTENSION volume = VolumeOf(device);
    if (!volume->MapDirty || !volume->MapLocation) return STATUS_SUCCESS;
    // The redirected data goes before the map that points to it. The bulk of it goes now, while the volume's
    // writes go on; what they add meanwhile is flushed under the lock, before the map begins to change.
    const NTSTATUS flushed = FlushDevice(volume->Target);
    FastMutexLock lock(volume->SwapLock);
    if (!CanBeSaved(volume)) return STATUS_SUCCESS;  // looked at again: now nothing can change
    if (!gHardening || NT_SUCCESS(flushed)) SaveTrees(volume);
    if (!NT_SUCCESS(flushed)) ReportUnsaved(volume, flushed);  // what it points to may not be there
    return STATUS_SUCCESS;
}

void RetireSavedMap(PVOLUME_EXTENSION volume) {
    const NTSTATUS status = SpoilSavedMap(volume);
    volume->MapRetireDue = !NT_SUCCESS(status);
    DbgPrint("Kvr!RetireSavedMap: the map of 0x%08x is no longer to be used, 0x%08x\n",
             TraceAddress(volume->FilterDevice), status);
}

void FillAsDamagedMap(UCHAR* buffer, ULONG bytes) {
    for (ULONG i = 0; i < bytes / sizeof(ULONG); ++i) {
        const ULONG word = 0xFF000000 | i;
        RtlCopyMemory(buffer + i * sizeof(word), &word, sizeof(word));
    }
}
