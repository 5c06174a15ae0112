#include "swap/sector_io.h"
#include "platform/assert.h"
#include "platform/owners.h"
#include "redirect/swap_file.h"
#include "swap/request_io.h"

// Requests arrive with a hold on the volume's record, so its Target stays where it is throughout.

PDEVICE_OBJECT LazySwapDevice::Get(PVOLUME_EXTENSION volume) {
    if (!m_device) m_device = ::new (m_storage) SwapDevice(volume);
    return m_device->Device();
}

void LazySwapDevice::Release() {
    if (m_device) m_device->Release();
    m_device = nullptr;
}

RUN_TRANSFERS::RUN_TRANSFERS() {
    KeInitializeEvent(&event, NotificationEvent, FALSE);
}

NTSTATUS RUN_TRANSFERS::Transfer(ULONG major, PDEVICE_OBJECT device, UCHAR* buffer, ULONG length,
                                 LARGE_INTEGER offset) {
    iosb = {};
    if (!device) return STATUS_NO_SUCH_DEVICE;
    const NTSTATUS status = TransferSectors(major, device, buffer, length, &offset, &iosb, &event);
    if (NT_SUCCESS(status)) transferred += iosb.Information;
    return status;
}

NTSTATUS TransferSectors(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length,
                         const LARGE_INTEGER* offset, PIO_STATUS_BLOCK iosb, PKEVENT event) {
    LARGE_INTEGER position = *offset;
    PIRP lower = IoBuildAsynchronousFsdRequest(major, device, buffer, length, &position, iosb);
    if (!lower) return STATUS_INSUFFICIENT_RESOURCES;
    KeClearEvent(event);
    IoSetCompletionRoutine(lower, SegmentIoComplete, event, TRUE, TRUE, TRUE);
    const NTSTATUS status = IofCallDriver(device, lower);
    if (status != STATUS_PENDING) return status;
    KVR_DISCARD(KeWaitForSingleObject(event, Executive, KernelMode, FALSE, nullptr),
                "an untimed kernel-mode wait ends only with the event");
    return iosb->Status;
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
