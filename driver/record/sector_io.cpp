#include "driver/record/sector_io.h"
#include "driver/record/requests.h"

NTSTATUS TransferSectors(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length,
                         const LARGE_INTEGER* offset, PIO_STATUS_BLOCK iosb, PKEVENT event) {
    LARGE_INTEGER position = *offset;
    PIRP lower = IoBuildAsynchronousFsdRequest(major, device, buffer, length, &position, iosb);
    if (!lower) return STATUS_INSUFFICIENT_RESOURCES;
    KeClearEvent(event);
    IoSetCompletionRoutine(lower, SegmentIoComplete, event, TRUE, TRUE, TRUE);
    return AwaitRequest(IofCallDriver(device, lower), event, iosb);
}

NTSTATUS TransferOnce(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length, LONGLONG offset) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    LARGE_INTEGER position;
    position.QuadPart = offset;
    return TransferSectors(major, device, buffer, length, &position, &iosb, &event);
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
