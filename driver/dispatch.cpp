#include "driver/dispatch.h"
#include "platform/checked_list.h"
#include "platform/owners.h"

NTSTATUS CompleteRequest(PIRP request, NTSTATUS status, ULONG_PTR information) {
    request->IoStatus.Status = status;
    request->IoStatus.Information = information;
    IofCompleteRequest(request, IO_NO_INCREMENT);
    return status;
}

NTSTATUS PassIrpDown(PDEVICE_OBJECT device, PIRP request) {
    IoSkipCurrentIrpStackLocation(request);
    return IofCallDriver(VolumeOf(device)->Target, request);
}

NTSTATUS ForwardIrpSynchronously(PDEVICE_OBJECT device, PIRP request) {
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(request);
    IoSetCompletionRoutine(request, SyncCompletion, &done, TRUE, TRUE, TRUE);
    NTSTATUS status = IofCallDriver(VolumeOf(device)->Target, request);
    if (status == STATUS_PENDING) {
        KVR_DISCARD(KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr),
                    "an untimed kernel-mode wait ends only with the event");
        status = request->IoStatus.Status;
    }
    return status;
}

NTSTATUS SyncCompletion(PDEVICE_OBJECT device, PIRP request, PVOID event) {
    UNREFERENCED_PARAMETER(device);
    UNREFERENCED_PARAMETER(request);
    KeSetEvent(static_cast<PKEVENT>(event), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

BOOLEAN IsVolumeInList(PVOLUME_EXTENSION volume) {
    return volume->IsListed;
}

void LinkVolume(PVOLUME_EXTENSION volume) {
    FastMutexLock lock(gVolumeListLock);
    LinkAtTail(&gVolumeList, &volume->ListEntry);
    volume->IsListed = TRUE;
}

void UnlinkVolume(PVOLUME_EXTENSION volume) {
    FastMutexLock lock(gVolumeListLock);
    if (!volume->IsListed) return;
    volume->IsListed = FALSE;
    Unlink(&volume->ListEntry);
}

RecordHold::RecordHold(PVOLUME_EXTENSION volume, PVOID tag)
    : m_volume(NT_SUCCESS(IoAcquireRemoveLock(&volume->RemoveLock, tag)) ? volume : nullptr), m_tag(tag) {}

RecordHold::~RecordHold() {
    if (m_volume) IoReleaseRemoveLock(&m_volume->RemoveLock, m_tag);
}
