// The order of redirected writes. Two writes over one range may be under way at once: a system writes a page of
// its cache again while an older write of that page is in flight. Each is made from a copy of its own, so what
// a device without the driver would take from the live page must come of their order: a write waits for every
// earlier one that it overlaps, from before its copy is taken until that one's redirections are recorded.
// Afterwards each sector holds the data of the write that began last. Writes that overlap none do not wait.
//
// Nothing waits in a circle. A place waits only for places that were taken before it. Who waits holds no
// pages, no swap space, no lower request and no lock but a FlushLock, which nobody asks for who has a place;
// who has a place waits for the devices below, for locks that come after it in the order, and for pages to be
// read, and a read takes no place. A write that a thread sends while it has a place on the volume, as a
// completion or a device below might, would wait for itself and is let through.
#pragma once
#include "driver/record/volume_extension.h"

// One write among those under way on its volume. It stands in the frame of who writes, so that no write can
// want memory for it; the frame stays resident, as a thread that has a place waits in kernel mode only.
struct WRITE_PLACE {
    LIST_ENTRY Link;    // in WritesUnderWay, in the order in which the writes began
    PKTHREAD Thread;    // who has it
    ULONG64 Begin;      // bytes on the volume
    ULONG64 End;        // behind the last
    ULONG EarlierOnes;  // that it overlaps and that are under way still; under WriteOrderLock
    KEVENT Turn;        // when it waits: set with the end of the last of them
};

// Before the record's first write.
void InitWriteOrder(PVOLUME_EXTENSION volume);

// Has a place for `length` bytes at `offset` for as long as it lives, or until Leave(); the caller holds the
// record. The constructor waits for its turn; a write of nothing takes no place. A range that no volume can
// have may take one: what it overlaps waits, and it fails soon. IRQL: at most APC_LEVEL; no lock is held but a
// FlushLock.
class WritePlace {
public:
    WritePlace(PVOLUME_EXTENSION volume, const LARGE_INTEGER* offset, ULONG length);
    ~WritePlace() { Leave(); }
    WritePlace(const WritePlace&) = delete;
    WritePlace& operator=(const WritePlace&) = delete;

    // Before the write's request is completed: its sender may send the next one from there. Idempotent.
    void Leave();

private:
    PVOLUME_EXTENSION m_volume;  // null: no place
    WRITE_PLACE m_place{};
};
