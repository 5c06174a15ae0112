#include "swap/map_format.h"
#include "driver/record/sector_io.h"
#include "platform/owners.h"

namespace {

// One save. It copies in what it needs of the record, whose SwapLock the caller holds until it is done, and
// keeps the cursor and the buffer of the run to itself.
class MapWriter {
public:
    explicit MapWriter(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock)
        : m_target(volume->Target),
          m_unit(volume->BytesPerSector),
          m_location(volume->MapLocation),
          m_count(volume->ulMapLocationLength / sizeof(MAP_LOCATION_ENTRY)) {}

    // False when the first of the runs, of which there is one, cannot be used or there is no memory for it.
    [[nodiscard]] bool Begin() { return IsUsableRun(m_location) && MakeBuffer(); }
    // Stores one entry, with offsets and length in bytes. An offset that an entry cannot name is left out: cut,
    // it would name another place. A space that is left out is lost until the storage is made anew.
    void Store(LONGLONG volumeOffset, LONGLONG swapOffset, ULONG length) {
        StoreSectors(static_cast<ULONG64>(volumeOffset / m_unit), swapOffset, length);
    }
    void StoreFree(LONGLONG swapOffset, ULONG length) { StoreSectors(kFreeSpaceMark, swapOffset, length); }
    // Writes what is still in the buffer, and the end behind it.
    void End() {
        KVR_DISCARD(FlushMapBuffer(), "the last run may have been filled to its end");
        WriteMapTerminator();
        m_buffer.Reset();
    }

    [[nodiscard]] ULONG Unit() const { return m_unit; }
    [[nodiscard]] ULONG RunsWritten() const { return m_run; }  // the terminating one included
    [[nodiscard]] bool IsCut() const { return m_cut; }         // for want of memory: to be tried again

private:
    void StoreSectors(ULONG64 volumeSector, LONGLONG swapOffset, ULONG length);
    [[nodiscard]] bool MakeBuffer();
    void ZeroRun();
    void NextRun();
    BOOLEAN FlushMapBuffer();
    void WriteMapTerminator();
    [[nodiscard]] NTSTATUS WriteBytes(ULONG length, ULONG behind) {
        const LONGLONG offset = RunOffset(m_location[m_run], m_unit) + behind;
        return TransferOnce(IRP_MJ_WRITE, m_target, m_buffer.Get(), length, offset);
    }

    PDEVICE_OBJECT m_target;
    ULONG m_unit;
    const MAP_LOCATION_ENTRY* m_location;
    ULONG m_count;  // whole entries only: a value of odd length from the registry never leads past its end
    ULONG m_run = 0;
    ULONG m_entries = 0;  // in the buffer
    ULONG m_size = 0;     // of the buffer
    PoolPtr<UCHAR> m_buffer;
    bool m_cut = false;
};

// The run's buffer, zeroed, takes the place of the last one's. False, and nothing changed, when there is no
// memory.
bool MapWriter::MakeBuffer() {
    const ULONG size = m_location[m_run].ulLength;
    PoolPtr<UCHAR> buffer = NewBuffer(size);
    if (!buffer) return false;
    RtlZeroMemory(buffer.Get(), size);
    m_buffer = std::move(buffer);
    m_size = size;
    return true;
}

// The runs behind this one hold an older map, which must not be taken for this one's end: the run is zeroed
// with the buffer at hand, piece by piece, as far as the volume goes: what the registry says of its length is
// not to be relied on.
void MapWriter::ZeroRun() {
    const ULONG whole = m_location[m_run].ulLength;
    RtlZeroMemory(m_buffer.Get(), m_size);
    for (ULONG done = 0; done < whole;) {
        const ULONG length = whole - done < m_size ? whole - done : m_size;
        if (!NT_SUCCESS(WriteBytes(length, done))) return;
        done += length;
    }
}

// The save ends here when there is no run any more that can be used, or no memory for it; a later one tries
// again.
void MapWriter::NextRun() {
    const bool usable = IsUsableRun(m_location + m_run);
    if (usable && MakeBuffer()) return;
    if (usable) {
        ZeroRun();
        m_cut = true;
    }
    m_buffer.Reset();
}

// FALSE when there is nothing to write, or nowhere.
BOOLEAN MapWriter::FlushMapBuffer() {
    if (std::exchange(m_entries, 0) == 0 || !m_buffer || m_run >= m_count) return FALSE;
    KVR_DISCARD(WriteBytes(m_location[m_run].ulLength, 0),
                "a map that could not be written whole is found damaged, or old, at the next boot");
    if (++m_run < m_count) NextRun();
    return TRUE;
}

// An all-zero run behind the last filled one is where a reader stops.
void MapWriter::WriteMapTerminator() {
    if (!m_buffer || m_run >= m_count) return;
    RtlZeroMemory(m_buffer.Get(), m_size);
    m_entries = 1;
    KVR_DISCARD(FlushMapBuffer(), "there is something to write, and somewhere");
}

void MapWriter::StoreSectors(ULONG64 volumeSector, LONGLONG swapOffset, ULONG length) {
    const auto swapSector = static_cast<ULONG64>(swapOffset / m_unit);
    if (!m_buffer || volumeSector > kFreeSpaceMark || swapSector > 0xFFFFFFFF) return;
    auto* entry = reinterpret_cast<SWAP_MAP_ENTRY*>(m_buffer.Get()) + m_entries;
    entry->ulVolumeSector = static_cast<ULONG>(volumeSector);
    entry->ulSwapSector = static_cast<ULONG>(swapSector);
    entry->ulSectors = length / m_unit & kMostMapSectors;
    SealMapEntry(entry);
    ++m_entries;
    if ((ULONG64{m_entries} + 1) * sizeof(SWAP_MAP_ENTRY) > m_size)
        KVR_DISCARD(FlushMapBuffer(), "behind the last run the entries go nowhere");
}

ULONG store_swapped_chunks(PVOID record, PVOID writer) {
    const auto* chunk = static_cast<const SWAPPED_CHUNK*>(record);
    auto* map = static_cast<MapWriter*>(writer);
    if (!chunk || chunk->bVolatile != 0) return 0;
    // The last sector's number would say that the entry is free space.
    if (chunk->liVolumeOffset.QuadPart / map->Unit() != kFreeSpaceMark)
        map->Store(chunk->liVolumeOffset.QuadPart, chunk->liSwapOffset.QuadPart, chunk->uLength);
    return 0;
}

ULONG store_volatile_chunks(PVOID record, PVOID writer) {
    const auto* chunk = static_cast<const SWAPPED_CHUNK*>(record);
    if (chunk && chunk->bVolatile != 0)
        static_cast<MapWriter*>(writer)->StoreFree(chunk->liSwapOffset.QuadPart, chunk->uLength);
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
    ULONG Volatile;
};

ULONG count_swapped_chunks(PVOID record, PVOID context) {
    auto* count = static_cast<SWAPPED_COUNT*>(context);
    if (record && static_cast<const SWAPPED_CHUNK*>(record)->bVolatile != 0) ++count->Volatile;
    return count_items(record, &count->Chunks);
}

// A walk over a large map costs more in memory accesses than its entries do, so it is left out when it would
// store nothing.
void StoreTrees(PVOLUME_EXTENSION volume, MapWriter& writer) KVR_REQUIRES(volume->SwapLock) {
    ULONG free = 0;
    SWAPPED_COUNT swapped = {};
    tree_walk(&volume->FreeChunks, count_items, &free);
    tree_walk(&volume->SwappedChunks, count_swapped_chunks, &swapped);
    if (!writer.Begin()) return;
    DbgPrint("Kvr!SerializeSwapMap: storage s%d + f%d\n", swapped.Chunks, free);
    tree_walk(&volume->SwappedChunks, store_swapped_chunks, &writer);
    if (swapped.Volatile != 0) tree_walk(&volume->SwappedChunks, store_volatile_chunks, &writer);
    tree_walk(&volume->FreeChunks, store_free_chunks, &writer);
    writer.End();
}

bool CanBeSaved(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    return volume->MapDirty && volume->MapLocation && !volume->MapReadFailed &&
           volume->ulMapLocationLength >= sizeof(MAP_LOCATION_ENTRY) && volume->BytesPerSector != 0 &&
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
    MapWriter writer(volume);
    StoreTrees(volume, writer);
    if (writer.IsCut()) volume->MapDirty = TRUE;
    DbgPrint("Kvr!SerializeSwapMap: map sectors written: %d\n", writer.RunsWritten());
    return STATUS_SUCCESS;
}
