// Flush, power and shutdown of filter devices: the points at which cached writes and the map reach the disk.
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "driver/record/hardening.h"
#include "driver/remove.h"
#include "driver/shutdown.h"
#include "driver/record/requests.h"
#include "driver/record/sector_io.h"
#include "redirect/write_cache.h"
#include "swap/map_format.h"

namespace {

BOOLEAN IsRedirected(PVOLUME_EXTENSION volume) {
    if (!volume->IsProtected) UpdateVolumeProtection(volume);
    return volume->IsProtected && volume->SwapFile;
}

// So that the volume's changes outlive the reboot, if they are to be kept. What did not change since the last
// save is not saved again. Of a protected volume nothing here is pageable.
void SaveVolumeState(PVOLUME_EXTENSION volume) {
    if (!gTesselEnabled || !IsVolumeInList(volume) || !IsRedirected(volume)) return;
    KVR_DISCARD(FlushWriteCache(volume),
                "what finds no swap space now never will; the map is saved all the same");
    KVR_DISCARD(WriteSwapMap(volume->FilterDevice, FALSE), "saving always succeeds, and nothing comes after");
}

// Between the drivers' notification and the end of the file systems a protected volume is written to as ever.
// The last chance comes behind that. A volume that is not protected asks for none: whether it has become so is
// a question of names, and of the configuration's any character may need what is pageable.
void AwaitLastChance(PVOLUME_EXTENSION volume) {
    if (!volume->IsProtected) return;
    KVR_DISCARD(IoRegisterLastChanceShutdownNotification(volume->FilterDevice),
                "without it what is written from now on may be lost; what was saved is not");
}

// A volume is told several times: by the system, by its file system as that ends, and at the last chance. Only
// the first time changes what it is registered for. The file system means its request for the disk below, which
// does not see it.
void EndVolume(PVOLUME_EXTENSION volume) {
    RecordHold hold(volume);
    if (hold.Failed() || volume->IsDisk) return;
    const bool first = !volume->IsShutdownSeen.exchange(TRUE);
    if (first) IoUnregisterShutdownNotification(volume->FilterDevice);
    SaveVolumeState(volume);
    KVR_DISCARD(FlushDevice(volume->Target), "whatever the device says, there is nobody to tell");
    if (first) AwaitLastChance(volume);
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
        // The last writes before a silence have no later one that saves them. Not at each flush: a power cut
        // that tears a save takes everything that is kept.
        if (gHardening && volume->MapDirty) SaveMapWhenDue(volume);
    }
    return status;
}

NTSTATUS KvrPower(PDEVICE_OBJECT device, PIRP request) {
    if (device == gControlDevice) return KvrDefaultDispatch(device, request);
    PVOLUME_EXTENSION volume = VolumeOf(device);
    RecordHold hold(volume, request);
    if (hold.Failed()) {
        PoStartNextPowerIrp(request);
        return CompleteRequest(request, STATUS_DELETE_PENDING);
    }
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
    EndVolume(volume);
    LeaveDiskStack(volume);
    return CompleteRequest(request, STATUS_SUCCESS);
}
