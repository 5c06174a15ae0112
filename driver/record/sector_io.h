// Raw sectors of a lower device: the one way in which the driver reads and writes them. The requests are built
// here, go to the device below and come back to nobody else. IRQL: below DISPATCH_LEVEL; the caller keeps the
// device from going away, as by a hold on the record whose Target it is.
#pragma once
#include "platform/kernel.h"

// One synchronous transfer (IRP_MJ_READ or IRP_MJ_WRITE) of `length` bytes, whole sectors, at byte `offset` of
// the device, to or from `buffer`, a kernel address. The status is the device's; the byte count is in `iosb`.
// STATUS_INSUFFICIENT_RESOURCES, and no transfer, when no request can be built. `event` is a notification event
// of the caller, reused from one transfer to the next.
[[nodiscard]] NTSTATUS TransferSectors(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length,
                                       const LARGE_INTEGER* offset, PIO_STATUS_BLOCK iosb, PKEVENT event);
// The same in two steps, for who has several under way at once.
struct TRANSFER {
    KEVENT Done;
    IO_STATUS_BLOCK Block;  // the device's status and byte count once the transfer is over
    NTSTATUS Sent;
};
// Sends the transfer and comes back without waiting. `transfer` lies in resident memory and stays there until
// EndTransfer, which follows exactly once, whatever became of it.
void BeginTransfer(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length, LONGLONG offset,
                   TRANSFER* transfer);
[[nodiscard]] BOOLEAN IsTransferOver(TRANSFER* transfer);
// Waits for the end. The status is the device's; STATUS_INSUFFICIENT_RESOURCES when no request could be built.
[[nodiscard]] NTSTATUS EndTransfer(TRANSFER* transfer);
// The same for who makes one transfer and does not ask for its byte count.
[[nodiscard]] NTSTATUS TransferOnce(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length,
                                    LONGLONG offset);
// Has the device below put what it holds of earlier writes, anybody's, on stable storage, and waits for that
// (IRP_MJ_FLUSH_BUFFERS). STATUS_SUCCESS also from a device that does not know the request: it keeps nothing
// back. Else the device's status, or STATUS_INSUFFICIENT_RESOURCES and no request.
[[nodiscard]] NTSTATUS FlushDevice(PDEVICE_OBJECT device);
// The completion routine of these requests: releases the request; `event`, which may be null, is set.
// IRQL: at most DISPATCH_LEVEL.
NTSTATUS SegmentIoComplete(PDEVICE_OBJECT device, PIRP request, PVOID event);
