#include "driver/record/sector_io.h"
#include "driver/record/requests.h"

namespace {

// What the device returned; STATUS_PENDING: `event` tells the end.
NTSTATUS Send(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length, LARGE_INTEGER position,
              PIO_STATUS_BLOCK iosb, PKEVENT event) {
    PIRP lower = IoBuildAsynchronousFsdRequest(major, device, buffer, length, &position, iosb);
    if (!lower) return STATUS_INSUFFICIENT_RESOURCES;
    KeClearEvent(event);
    IoSetCompletionRoutine(lower, SegmentIoComplete, event, TRUE, TRUE, TRUE);
    return IofCallDriver(device, lower);
}

}  // namespace

NTSTATUS TransferSectors(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length,
                         const LARGE_INTEGER* offset, PIO_STATUS_BLOCK iosb, PKEVENT event) {
    return AwaitRequest(Send(major, device, buffer, length, *offset, iosb, event), event, iosb);
}

void BeginTransfer(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length, LONGLONG offset,
                   TRANSFER* transfer) {
    LARGE_INTEGER position;
    position.QuadPart = offset;
    KeInitializeEvent(&transfer->Done, NotificationEvent, FALSE);
    transfer->Block = {};
    transfer->Sent = Send(major, device, buffer, length, position, &transfer->Block, &transfer->Done);
}

BOOLEAN IsTransferOver(TRANSFER* transfer) {
    return transfer->Sent != STATUS_PENDING || KeReadStateEvent(&transfer->Done) != 0;
}

NTSTATUS EndTransfer(TRANSFER* transfer) {
    return AwaitRequest(transfer->Sent, &transfer->Done, &transfer->Block);
}

NTSTATUS TransferOnce(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length, LONGLONG offset) {
    TRANSFER transfer;
    BeginTransfer(major, device, buffer, length, offset, &transfer);
    return EndTransfer(&transfer);
}

NTSTATUS FlushDevice(PDEVICE_OBJECT device) {
    const NTSTATUS status = TransferOnce(IRP_MJ_FLUSH_BUFFERS, device, nullptr, 0, 0);
    const bool unknown = status == STATUS_INVALID_DEVICE_REQUEST || status == STATUS_NOT_SUPPORTED ||
                         status == STATUS_NOT_IMPLEMENTED;
    return unknown ? STATUS_SUCCESS : status;
}

// Does what the I/O manager would do at the end of the request, in the completing thread: the request was
// built for no thread's queue, so it must not come back to one.
NTSTATUS SegmentIoComplete(PDEVICE_OBJECT, PIRP request, PVOID event) {
    if (request->UserIosb) *request->UserIosb = request->IoStatus;
    while (PMDL mdl = request->MdlAddress) {
        request->MdlAddress = mdl->Next;
        if (mdl->MdlFlags & MDL_PAGES_LOCKED) MmUnlockPages(mdl);
        IoFreeMdl(mdl);
    }
    IoFreeIrp(request);
    if (event) KeSetEvent(static_cast<PKEVENT>(event), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}
