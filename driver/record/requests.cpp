#include "driver/record/requests.h"
#include "driver/record/volume_list.h"
#include "platform/owners.h"

NTSTATUS CompleteRequest(PIRP request, NTSTATUS status, ULONG_PTR information) {
    request->IoStatus.Status = status;
    request->IoStatus.Information = information;
    return CompleteForwarded(request, status);
}

NTSTATUS CompleteForwarded(PIRP request, NTSTATUS status) {
    IofCompleteRequest(request, IO_NO_INCREMENT);
    return status;
}

NTSTATUS PassIrpDown(PDEVICE_OBJECT device, PIRP request) {
    IoSkipCurrentIrpStackLocation(request);
    return IofCallDriver(VolumeOf(device)->Target, request);
}

NTSTATUS HoldAndPassDown(PDEVICE_OBJECT device, PIRP request) {
    const RecordHold hold(VolumeOf(device), request);
    return hold.Failed() ? CompleteRequest(request, STATUS_DELETE_PENDING) : PassIrpDown(device, request);
}

NTSTATUS ForwardIrpSynchronously(PDEVICE_OBJECT device, PIRP request) {
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(request);
    IoSetCompletionRoutine(request, SyncCompletion, &done, TRUE, TRUE, TRUE);
    return AwaitRequest(IofCallDriver(VolumeOf(device)->Target, request), &done, &request->IoStatus);
}

NTSTATUS QueryTarget(PVOLUME_EXTENSION volume, ULONG code, PVOID answer, ULONG bytes) {
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    PIRP request =
        IoBuildDeviceIoControlRequest(code, volume->Target, nullptr, 0, answer, bytes, FALSE, &done, &iosb);
    if (!request) return STATUS_INSUFFICIENT_RESOURCES;
    const NTSTATUS status = AwaitRequest(IofCallDriver(volume->Target, request), &done, &iosb);
    if (!NT_SUCCESS(status)) return status;
    return iosb.Information == bytes ? STATUS_SUCCESS : STATUS_BUFFER_TOO_SMALL;
}

NTSTATUS SyncCompletion(PDEVICE_OBJECT device, PIRP request, PVOID event) {
    UNREFERENCED_PARAMETER(device);
    UNREFERENCED_PARAMETER(request);
    KeSetEvent(static_cast<PKEVENT>(event), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS AwaitRequest(NTSTATUS returned, PKEVENT done, const IO_STATUS_BLOCK* block) {
    if (returned != STATUS_PENDING) return returned;
    KVR_DISCARD(KeWaitForSingleObject(done, Executive, KernelMode, FALSE, nullptr),
                "an untimed kernel-mode wait ends only with the event");
    return block->Status;
}

NTSTATUS KvrDefaultDispatch(PDEVICE_OBJECT device, PIRP request) {
    if (device != gControlDevice) return HoldAndPassDown(device, request);
    const bool cleanup = IoGetCurrentIrpStackLocation(request)->MajorFunction == IRP_MJ_CLEANUP;
    return CompleteRequest(request, cleanup ? STATUS_SUCCESS : STATUS_INVALID_DEVICE_REQUEST);
}

PFILE_OBJECT FindRequestFile(PIRP request) {
    if (PFILE_OBJECT file = request->Tail.Overlay.OriginalFileObject) return file;
    if (PFILE_OBJECT file = IoGetCurrentIrpStackLocation(request)->FileObject) return file;
    if (!(request->Flags & IRP_ASSOCIATED_IRP) || !request->AssociatedIrp.MasterIrp) return nullptr;
    return request->AssociatedIrp.MasterIrp->Tail.Overlay.OriginalFileObject;
}
