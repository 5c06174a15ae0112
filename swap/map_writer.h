// One save of the map, run by run; for swap/ only.
#pragma once
#include "platform/owners.h"
#include "swap/swap.h"

// It copies in what it needs of the record, whose SwapLock the caller holds until it is done, and keeps the
// cursor and the buffer of the run to itself.
//
// The map is rewritten in place. Without gHardening each run is one write, in order; a cut in between leaves
// what it leaves. Under gHardening the map's first sector is made unusable before anything else is written and
// gets its content last, with the device flushed between each two of these steps: whenever the power fails, the
// next boot finds the old map, the new one, or one that it reports. A save that fails leaves the map unusable.
class MapWriter {
public:
    explicit MapWriter(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock);

    // To be called first: what was written before is on stable storage when the map begins to change. False,
    // and nothing is to be stored, when the first of the runs, of which there is one, cannot be used or there
    // is no memory for it; under gHardening also when a step failed.
    [[nodiscard]] bool Begin();
    // Stores one entry, with offsets and length in bytes; `volumeOffset` is below Limit(). A space that an
    // entry cannot name is left out: cut, its offset would name another place. It is lost until the storage is
    // made anew.
    void Store(LONGLONG volumeOffset, LONGLONG swapOffset, ULONG length);
    void StoreFree(LONGLONG swapOffset, ULONG length) { StoreSectors(kFreeSpaceMark, swapOffset, length); }
    // Writes what is still in the buffer, and the end behind it.
    void End();
    // Makes the saved map one that the next boot reports as damaged, on stable storage when it succeeds.
    [[nodiscard]] NTSTATUS Spoil();

    // An offset from which on a redirection cannot be stored: its sector's number would be the mark of free
    // space, or beyond 32 bits.
    [[nodiscard]] LONGLONG Limit() const { return LONGLONG{kFreeSpaceMark} * m_unit; }
    [[nodiscard]] ULONG RunsWritten() const { return m_run; }   // the terminating one included
    [[nodiscard]] bool IsCut() const { return m_cut; }          // for want of memory: to be tried again
    [[nodiscard]] NTSTATUS Status() const { return m_status; }  // the first failure of a write or a flush

private:
    void StoreSectors(ULONG volumeSector, LONGLONG swapOffset, ULONG length);
    [[nodiscard]] bool HasRoom() const { return m_buffer && m_run < m_count; }
    [[nodiscard]] bool MakeBuffer();
    void ZeroRun();
    void NextRun();
    BOOLEAN FlushMapBuffer();
    void WriteMapTerminator();
    void WriteRun();
    void Seal();
    // TRUE for a success; the first failure is kept.
    bool Note(NTSTATUS status);
    // `length` bytes of `data` to `behind` the beginning of run `run`.
    [[nodiscard]] NTSTATUS WriteBytes(ULONG run, UCHAR* data, ULONG length, ULONG behind) const;

    PDEVICE_OBJECT m_target;
    ULONG m_unit;
    const MAP_LOCATION_ENTRY* m_location;
    ULONG m_count;  // whole entries only: a value of odd length from the registry never leads past its end
    bool m_seals;   // gHardening
    ULONG m_run = 0;
    ULONG m_entries = 0;  // in the buffer
    ULONG m_size = 0;     // of the buffer
    PoolPtr<UCHAR> m_buffer;
    PoolPtr<UCHAR> m_first;  // the first sector of the first run, held back until the end
    ULONG m_firstBytes = 0;
    bool m_cut = false;
    bool m_short = false;  // a redirection found no room
    NTSTATUS m_status = STATUS_SUCCESS;
};
