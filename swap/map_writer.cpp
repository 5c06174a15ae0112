#include "swap/map_writer.h"
#include "driver/record/hardening.h"
#include "driver/record/sector_io.h"
#include "swap/map_format.h"

MapWriter::MapWriter(PVOLUME_EXTENSION volume)
    : m_target(volume->Target),
      m_unit(volume->BytesPerSector),
      m_location(volume->MapLocation),
      m_count(volume->ulMapLocationLength / sizeof(MAP_LOCATION_ENTRY)),
      m_seals(gHardening) {}

bool MapWriter::Note(NTSTATUS status) {
    if (NT_SUCCESS(m_status)) m_status = status;
    return NT_SUCCESS(status);
}

NTSTATUS MapWriter::WriteBytes(ULONG run, UCHAR* data, ULONG length, ULONG behind) const {
    return TransferOnce(IRP_MJ_WRITE, m_target, data, length, RunOffset(m_location[run], m_unit) + behind);
}

bool MapWriter::Begin() {
    if (!IsUsableRun(m_location) || !MakeBuffer()) return false;
    if (m_seals) return NT_SUCCESS(Spoil());
    Note(FlushDevice(m_target));
    return true;
}

NTSTATUS MapWriter::Spoil() {
    m_firstBytes = m_location->ulLength < m_unit ? m_location->ulLength : m_unit;
    m_first = NewBuffer(m_firstBytes);
    if (!m_first) return STATUS_INSUFFICIENT_RESOURCES;
    FillAsDamagedMap(m_first.Get(), m_firstBytes);
    if (Note(WriteBytes(0, m_first.Get(), m_firstBytes, 0))) Note(FlushDevice(m_target));
    return m_status;
}

void MapWriter::Seal() {
    if (m_short) Note(STATUS_INSUFFICIENT_RESOURCES);  // sealed, the map would show old and new data mixed
    if (!NT_SUCCESS(m_status) || !Note(FlushDevice(m_target))) return;
    if (Note(WriteBytes(0, m_first.Get(), m_firstBytes, 0))) Note(FlushDevice(m_target));
}

void MapWriter::End() {
    KVR_DISCARD(FlushMapBuffer(), "the last run may have been filled to its end");
    WriteMapTerminator();
    if (m_seals)
        Seal();
    else
        Note(FlushDevice(m_target));
}

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
        if (!Note(WriteBytes(m_run, m_buffer.Get(), length, done))) return;
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

void MapWriter::WriteRun() {
    ULONG behind = 0;
    if (m_seals && m_run == 0) {
        RtlCopyMemory(m_first.Get(), m_buffer.Get(), m_firstBytes);
        behind = m_firstBytes;
    }
    if (behind < m_size) Note(WriteBytes(m_run, m_buffer.Get() + behind, m_size - behind, behind));
}

// FALSE when there is nothing to write, or nowhere.
BOOLEAN MapWriter::FlushMapBuffer() {
    if (std::exchange(m_entries, 0) == 0 || !HasRoom()) return FALSE;
    WriteRun();
    if (m_seals && !NT_SUCCESS(m_status))
        m_buffer.Reset();  // it will not be sealed: what follows would be written for nothing
    else if (++m_run < m_count)
        NextRun();
    return TRUE;
}

// An all-zero run, as MakeBuffer makes it, behind the last filled one is where a reader stops.
void MapWriter::WriteMapTerminator() {
    if (!HasRoom()) return;
    m_entries = 1;
    KVR_DISCARD(FlushMapBuffer(), "there is something to write, and somewhere");
}

void MapWriter::Store(LONGLONG volumeOffset, LONGLONG swapOffset, ULONG length) {
    if (!HasRoom()) m_short = true;
    StoreSectors(static_cast<ULONG>(volumeOffset / m_unit), swapOffset, length);
}

void MapWriter::StoreSectors(ULONG volumeSector, LONGLONG swapOffset, ULONG length) {
    const auto swapSector = static_cast<ULONG64>(swapOffset / m_unit);
    if (!HasRoom() || swapSector > 0xFFFFFFFF) return;
    auto* entry = reinterpret_cast<SWAP_MAP_ENTRY*>(m_buffer.Get()) + m_entries;
    entry->ulVolumeSector = volumeSector;
    entry->ulSwapSector = static_cast<ULONG>(swapSector);
    entry->ulSectors = length / m_unit & kMostMapSectors;
    SealMapEntry(entry);
    ++m_entries;
    if ((ULONG64{m_entries} + 1) * sizeof(SWAP_MAP_ENTRY) > m_size)
        KVR_DISCARD(FlushMapBuffer(), "behind the last run the entries go nowhere");
}
