#include "swap/chunk_maps.h"
#include "swap/chunk_index.h"
#include "swap/swap_file.h"

namespace {

constexpr LONGLONG kLastSector = 0xFFFFFFFF;  // that a map location can name

void InitTrees(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    tree_init(&volume->SwappedChunks, node_alloc, node_free, key_less_i64, key_in_chunk, volume);
    volume->SwapUsedBytes = 0;
    tree_init(&volume->MapFileChunks, node_alloc, node_free, key_less_u32, key_equal_u32, volume);
    tree_init(&volume->FreeChunks, node_alloc, node_free, key_less_i64, key_equal_i64, volume);
    volume->SwapFreeBytes = 0;
    volume->MapDirty = TRUE;
}

NTSTATUS StoreFreeRecord(TREE* tree, LONGLONG swapOffset, ULONG length, bool* isNew) {
    PoolPtr<FREE_CHUNK> record = NewRecord<FREE_CHUNK>();
    if (!record) return STATUS_INSUFFICIENT_RESOURCES;
    record->liSwapOffset.QuadPart = swapOffset;
    record->uLength = length;
    return StoreRecord(tree, std::move(record), isNew);
}

// Copies `from` into `to`, touching chunks merged up to `limit` bytes. False when there is no pool for it.
[[nodiscard]] bool MergeInto(TREE* to, TREE* from, ULONG64 limit) {
    LONGLONG start = 0;
    ULONG length = 0;
    bool isNew = false;
    for (TREE_NODE* node = tree_first(from, from->Root); node; node = tree_next(from, node)) {
        const auto* chunk = static_cast<const FREE_CHUNK*>(node->Record);
        const bool touches = length != 0 && chunk->liSwapOffset.QuadPart - start == length;
        if (touches && ULONG64{length} + chunk->uLength <= limit) {
            length += chunk->uLength;
            continue;
        }
        if (length != 0 && !NT_SUCCESS(StoreFreeRecord(to, start, length, &isNew))) return false;
        start = chunk->liSwapOffset.QuadPart;
        length = chunk->uLength;
    }
    return NT_SUCCESS(StoreFreeRecord(to, start, length, &isNew));
}

}  // namespace

void InitSwapMaps(PVOLUME_EXTENSION volume) {
    FastMutexLock lock(volume->SwapLock);
    InitTrees(volume);
}

void EmptySwapMaps(PVOLUME_EXTENSION volume) {
    FastMutexLock lock(volume->SwapLock);
    EmptySwappedChunks(volume);
    EmptyFreeChunks(volume);
    tree_destroy(&volume->MapFileChunks);
}

void ResetSwapMaps(PDEVICE_OBJECT device) {
    PVOLUME_EXTENSION volume = VolumeOf(device);
    EmptySwapMaps(volume);
    InitSwapMaps(volume);
}

void CreditFreeSpace(PVOLUME_EXTENSION volume, ULONG64 bytes) {
    volume->SwapFreeBytes += bytes;
    MirrorFreeBytes(volume);
}

void DebitFreeSpace(PVOLUME_EXTENSION volume, ULONG64 bytes) {
    volume->SwapFreeBytes -= bytes;
    MirrorFreeBytes(volume);
}

NTSTATUS RecordFreeChunk(PVOLUME_EXTENSION volume, LONGLONG swapOffset, ULONG length) {
    if (length == 0) return STATUS_SUCCESS;
    bool isNew = false;
    const NTSTATUS status = StoreFreeRecord(&volume->FreeChunks, swapOffset, length, &isNew);
    if (isNew) CreditFreeSpace(volume, length);
    return status;
}

NTSTATUS RecordSwappedChunk(PVOLUME_EXTENSION volume, LONGLONG volumeOffset, LONGLONG swapOffset, ULONG length,
                            ULONG bVolatile) {
    PoolPtr<SWAPPED_CHUNK> record = NewRecord<SWAPPED_CHUNK>();
    if (!record) return STATUS_INSUFFICIENT_RESOURCES;
    record->liVolumeOffset.QuadPart = volumeOffset;
    record->liSwapOffset.QuadPart = swapOffset;
    record->uLength = length;
    record->bVolatile = bVolatile;
    bool isNew = false;
    const NTSTATUS status = InsertSwappedChunk(volume, std::move(record), &isNew);
    if (isNew) volume->SwapUsedBytes += length;
    return status;
}

void ReportLoss(NTSTATUS status, ULONG line, PCSTR noRecord, PCSTR noNode) {
    if (NT_SUCCESS(status)) return;
    PCSTR message = status == STATUS_INSUFFICIENT_RESOURCES ? noRecord : noNode;
    if (message) DbgPrint(message, line);
}

void EmptySwappedChunks(PVOLUME_EXTENSION volume) {
    DropChunkIndex(volume);
    tree_destroy(&volume->SwappedChunks);
    volume->SwapUsedBytes = 0;
}

void EmptyFreeChunks(PVOLUME_EXTENSION volume) {
    tree_destroy(&volume->FreeChunks);
    DebitFreeSpace(volume, volume->SwapFreeBytes);
}

NTSTATUS AddSwapFreeChunk(PVOLUME_EXTENSION volume, const LARGE_INTEGER* swapOffset, ULONG length) {
    FastMutexLock lock(volume->SwapLock);
    const NTSTATUS status = RecordFreeChunk(volume, swapOffset->QuadPart, length);
    if (status != STATUS_INSUFFICIENT_RESOURCES) volume->MapDirty = TRUE;
    ReportLoss(status, __LINE__, "Kvr!AddSwapFreeChunk [%d] STATUS_INSUFFICIENT_RESOURCES\n",
               "Kvr!AddSwapFreeChunk [%d] STATUS_UNSUCCESSFUL\n");
    return status;
}

void AddSwapMapChunk(PVOLUME_EXTENSION volume, LONGLONG offset, ULONG length) {
    const ULONG unit = volume->BytesPerSector;
    // A run that a 32-bit sector number cannot name would be written somewhere else: better none.
    if (unit == 0 || length == 0 || offset <= 0 || offset / unit > kLastSector) return;
    PoolPtr<MAP_LOCATION_ENTRY> record = NewRecord<MAP_LOCATION_ENTRY>();
    if (!record) return;
    record->ulSector = static_cast<ULONG>(offset / unit);
    record->ulLength = length;
    FastMutexLock lock(volume->SwapLock);
    bool isNew = false;
    KVR_DISCARD(StoreRecord(&volume->MapFileChunks, std::move(record), &isNew), "the map is then shorter");
}

ULONG key_in_chunk(const void* probe, const void* record) {
    const auto* chunk = static_cast<const SWAPPED_CHUNK*>(record);
    LONGLONG offset = 0;
    RtlCopyMemory(&offset, probe, sizeof(offset));
    const LONGLONG start = chunk->liVolumeOffset.QuadPart;
    return offset >= start && static_cast<ULONG64>(offset) - static_cast<ULONG64>(start) < chunk->uLength;
}

// The walk runs under SwapLock, which the analysis cannot see through the callback.
ULONG free_swapped_chunks(PVOID record, PVOID context) KVR_NO_ANALYSIS {
    const auto* chunk = static_cast<const SWAPPED_CHUNK*>(record);
    if (!chunk) return 0;
    const NTSTATUS status =
        RecordFreeChunk(static_cast<PVOLUME_EXTENSION>(context), chunk->liSwapOffset.QuadPart, chunk->uLength);
    ReportLoss(status, __LINE__, nullptr, "Kvr!free_swapped_chunks [%d] STATUS_UNSUCCESSFUL\n");
    return 0;
}

// As above.
ULONG unuse_swapped_chunks(PVOID record, PVOID context) KVR_NO_ANALYSIS {
    const auto* chunk = static_cast<const SWAPPED_CHUNK*>(record);
    if (!chunk) return 0;
    const NTSTATUS status =
        RecordFreeChunk(static_cast<PVOLUME_EXTENSION>(context), chunk->liSwapOffset.QuadPart, chunk->uLength);
    ReportLoss(status, __LINE__,
               "Kvr!unuse_swapped_chunks::ExAllocatePoolWithTag  STATUS_INSUFFICIENT_RESOURCES\n",
               "Kvr!unuse_swapped_chunks::tree_insert  STATUS_UNSUCCESSFUL\n");
    return 0;
}

void DiscardSwappedChunks(PVOLUME_EXTENSION volume) {
    FastMutexLock lock(volume->SwapLock);
    tree_walk(&volume->SwappedChunks, free_swapped_chunks, volume);
    EmptySwappedChunks(volume);
    tree_destroy(&volume->MapFileChunks);
    volume->MapDirty = TRUE;
}

void AggregateFreeChunks(PVOLUME_EXTENSION volume) {
    TREE* chunks = &volume->FreeChunks;
    if (!tree_first(chunks, chunks->Root)) return;
    TREE merged;
    tree_init(&merged, chunks->Allocate, chunks->Free, chunks->Less, chunks->Equal, chunks->Context);
    if (!MergeInto(&merged, chunks, ULONG64{volume->BytesPerSector} * kSectorsPerBlock)) {
        DbgPrint("Kvr!AggregateFreeChunks [%d] STATUS_INSUFFICIENT_RESOURCES\n", __LINE__);
        tree_destroy(&merged);  // the chunks as they are describe the same space
        return;
    }
    ULONG before = 0;
    ULONG after = 0;
    tree_walk(chunks, count_items, &before);
    tree_walk(&merged, count_items, &after);
    DbgPrint("Kvr!AggregateFreeChunks: before %d\n", before);
    DbgPrint("Kvr!AggregateFreeChunks: after %d\n", after);
    tree_destroy(chunks);
    *chunks = merged;
}
