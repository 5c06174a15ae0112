// Plug and Play beyond the start: which requests are refused, and the end of a record.
#include "driver/remove.h"
#include "driver/start.h"
#include "driver/usage.h"
#include "driver/record/requests.h"
#include "redirect/write_cache.h"
#include "swap/map_boot.h"
#include "swap/provision.h"
#include "swap/swap_file.h"

namespace {

// The driver cannot do without this volume: its data is redirected, or the configuration or a saved map lies
// on it.
BOOLEAN IsRecordNeeded(PVOLUME_EXTENSION volume) {
    if (!volume->IsVolume || volume->MediaType == RemovableMedia) return FALSE;
    return volume->IsProtected || volume->PreloadConfigLocation[0] != 0 || volume->MapLocation != nullptr;
}

NTSTATUS QueryRemoveDevice(PDEVICE_OBJECT device, PIRP request) {
    if (!IsRecordNeeded(VolumeOf(device))) return PassIrpDown(device, request);
    NTSTATUS status = CompleteRequest(request, STATUS_INSUFFICIENT_RESOURCES);
    DbgPrint("Kvr!IRP_MN_QUERY_REMOVE_DEVICE: 0x%08x\n", TraceAddress(device));
    return status;
}

void LeaveSwapFile(PVOLUME_EXTENSION volume) {
    if (!volume->SwapFile) return;
    KVR_DISCARD(DetachFromSwap(volume), "detaching always succeeds");
    volume->SwapFile = nullptr;
}

// FALSE, with the status to refuse the removal with, when it was not sent down: the record is needed, or a
// shutdown is taking it down.
BOOLEAN ForwardRemoval(PDEVICE_OBJECT device, PIRP request, NTSTATUS* status) {
    RecordHold hold(VolumeOf(device), request);
    if (hold.Failed()) *status = STATUS_DELETE_PENDING;
    if (hold.Failed() || IsRecordNeeded(VolumeOf(device))) return FALSE;
    *status = ForwardIrpSynchronously(device, request);
    return TRUE;
}

// The caller's own hold is the last one let go. From then on every acquisition fails: requests end with
// STATUS_DELETE_PENDING, and so do the writes of a provisioning thread that works on this volume, which
// therefore ends by itself; one that works on another volume is not disturbed.
BOOLEAN WaitForRecordUsers(PVOLUME_EXTENSION volume) {
    NTSTATUS status = IoAcquireRemoveLock(&volume->RemoveLock, volume);
    if (!NT_SUCCESS(status)) return FALSE;
    IoReleaseRemoveLockAndWait(&volume->RemoveLock, volume);
    return TRUE;
}

}  // namespace

NTSTATUS KvrPnp(PDEVICE_OBJECT device, PIRP request) {
    if (device == gControlDevice) return KvrDefaultDispatch(device, request);
    const UCHAR minor = IoGetCurrentIrpStackLocation(request)->MinorFunction;
    if (minor == IRP_MN_REMOVE_DEVICE) return RemoveDevice(device, request);  // which waits for all holds
    RecordHold hold(VolumeOf(device), request);
    if (hold.Failed()) return CompleteRequest(request, STATUS_DELETE_PENDING);
    switch (minor) {
        case IRP_MN_START_DEVICE:
            return StartDevice(device, request);
        case IRP_MN_QUERY_REMOVE_DEVICE:
            return QueryRemoveDevice(device, request);
        case IRP_MN_DEVICE_USAGE_NOTIFICATION:
            return NotifyUsage(device, request);
        default:
            return PassIrpDown(device, request);
    }
}

NTSTATUS RemoveDevice(PDEVICE_OBJECT device, PIRP request) {
    PVOLUME_EXTENSION volume = VolumeOf(device);
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    if (ForwardRemoval(device, request, &status))
        KVR_DISCARD(TakeDownFilter(volume), "FALSE: a shutdown was faster, and the record is gone already");
    KVR_DISCARD(CompleteRequest(request, status), "the status is the one passed in");
    DbgPrint("Kvr!RemoveDevice: 0x%08x status=%08x\n", TraceAddress(device), status);
    return status;
}

BOOLEAN TakeDownFilter(PVOLUME_EXTENSION volume) {
    if (!WaitForRecordUsers(volume)) return FALSE;
    // Only now does nobody register it any more.
    IoUnregisterShutdownNotification(volume->FilterDevice);
    DropCachedWrites(volume);
    EmptySwapMaps(volume);
    LeaveSwapFile(volume);
    UnlinkVolume(volume);
    // Only now: as long as the record could be found by name, a SWAP_FILE could have come to point to it.
    ForgetSwapVolume(volume);
    CloseHeldFiles(volume);
    KernelHandle(volume->ArmThreadHandle.exchange(nullptr)).Reset();
    ForgetMapLocation(volume);
    PDEVICE_OBJECT filter = volume->FilterDevice;
    IoDetachDevice(volume->Target);
    IoDeleteDevice(filter);
    return TRUE;
}
