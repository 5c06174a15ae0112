// Moves the data of requests between the caller's buffer and the devices below, run by run, with synchronous
// lower requests. A redirected write never changes the sectors that it addresses.
// IRQL: below DISPATCH_LEVEL; no lock is held while a lower request is in flight, but for the map save's.
#pragma once
#include "swap/segments.h"

// One synchronous transfer of raw sectors; `event` is a notification event of the caller, reused.
[[nodiscard]] NTSTATUS TransferSectors(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length,
                                       const LARGE_INTEGER* offset, PIO_STATUS_BLOCK iosb, PKEVENT event);
NTSTATUS SegmentIoComplete(PDEVICE_OBJECT device, PIRP request, PVOID event);
// Each completes the request (ReadSegments may pass it down instead) and returns its status.
[[nodiscard]] NTSTATUS ReadSegments(PVOLUME_EXTENSION volume, PIRP request);
[[nodiscard]] NTSTATUS WriteSegments(PVOLUME_EXTENSION volume, PIRP request, ULONG bVolatile);
[[nodiscard]] NTSTATUS WriteSectorsFromBuffer(PVOLUME_EXTENSION volume, PVOID buffer, ULONG length,
                                              const LARGE_INTEGER* offset);

// Locking and mapping a request's buffer (shared with the write cache). Lock raises what page locking
// raises; Unlock undoes exactly what this object locked and is safe at any time.
class RequestPages {
public:
    void Lock(PIRP request);
    [[nodiscard]] PVOID Map(PIRP request);  // null when the pages cannot be mapped
    void Unlock();

private:
    PMDL m_master = nullptr;
    PMDL m_own = nullptr;
};
