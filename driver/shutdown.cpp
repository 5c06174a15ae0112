// Flush, power and shutdown of filter devices: the points at which cached writes and the map reach the disk.
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "driver/remove.h"
#include "driver/shutdown.h"
#include "driver/record/requests.h"
#include "redirect/write_cache.h"
#include "swap/map_format.h"

namespace {

BOOLEAN IsRedirected(PVOLUME_EXTENSION volume) {
    if (!volume->IsProtected) UpdateVolumeProtection(volume);
    return volume->IsProtected && volume->SwapFile;
}

// So that the volume's changes outlive the reboot, if they are to be kept.
void SaveVolumeState(PVOLUME_EXTENSION volume) {
    RecordHold hold(volume);
    if (hold.Failed() || volume->IsDisk || !gTesselEnabled || !IsVolumeInList(volume)) return;
    if (!IsRedirected(volume)) return;
    KVR_DISCARD(FlushWriteCache(volume),
                "what finds no swap space now never will; the map is saved all the same");
    KVR_DISCARD(WriteSwapMap(volume->FilterDevice, FALSE), "saving always succeeds, and nothing comes after");
}

// Disk filters leave their stacks; volume filters stay, for the writes that still come.
void LeaveDiskStack(PVOLUME_EXTENSION volume) {
    if (!volume->IsDisk || volume->IsDetached.exchange(TRUE)) return;
    KVR_DISCARD(TakeDownFilter(volume), "FALSE: a removal was faster, and the record is gone already");
}

}  // namespace

NTSTATUS KvrFlush(PDEVICE_OBJECT device, PIRP request) {
    if (device == gControlDevice) return KvrDefaultDispatch(device, request);
    PVOLUME_EXTENSION volume = VolumeOf(device);
    RecordHold hold(volume, request);
    if (hold.Failed()) return CompleteRequest(request, STATUS_DELETE_PENDING);
    NTSTATUS status = PassIrpDown(device, request);
    if (IsVolumeInList(volume) && !volume->IsDisk && gTesselEnabled && IsRedirected(volume)) {
        KVR_DISCARD(FlushWriteCache(volume), "the flush below is what the caller is told about");
    }
    return status;
}

NTSTATUS KvrPower(PDEVICE_OBJECT device, PIRP request) {
    if (device == gControlDevice) return KvrDefaultDispatch(device, request);
    PVOLUME_EXTENSION volume = VolumeOf(device);
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(request);
    DbgPrint("Kvr!KvrPower: 0x%08x 0x%08x %d %d %d\n", TraceAddress(device), TraceAddress(volume->Target),
             static_cast<ULONG>(location->Parameters.Power.State.SystemState),
             static_cast<ULONG>(location->Parameters.Power.Type), location->MinorFunction);
    PoStartNextPowerIrp(request);
    IoSkipCurrentIrpStackLocation(request);
    return PoCallDriver(volume->Target, request);
}

// The request holds nothing while it takes the filter down, which waits for all who do. It is not passed on.
NTSTATUS KvrShutdown(PDEVICE_OBJECT device, PIRP request) {
    if (device == gControlDevice) return KvrDefaultDispatch(device, request);
    PVOLUME_EXTENSION volume = VolumeOf(device);
    DbgPrint("Kvr!KvrShutdown: 0x%08x 0x%08x\n", TraceAddress(device), TraceAddress(volume->Target));
    IoUnregisterShutdownNotification(device);
    SaveVolumeState(volume);
    LeaveDiskStack(volume);
    return CompleteRequest(request, STATUS_SUCCESS);
}
