// Writes: pass down, teach the driver where one of its files lies, are refused, or go into the swap.
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "config/config_location.h"
#include "config/storage.h"
#include "driver/record/hardening.h"
#include "driver/record/requests.h"
#include "redirect/redirect.h"
#include "redirect/request_io.h"
#include "redirect/request_path.h"
#include "redirect/write_cache.h"
#include "swap/map_boot.h"
#include "swap/map_format.h"

namespace {

constexpr REQUEST_TRACE kWriteTrace = {
    "Kvr!Write(%p:0x%08x): file 0x%08x, Flags: 0x%08x at %I64x %d bytes [%wZ:%wZ]\n",
    "Kvr!Write(%p:0x%08x): at %I64x %d bytes [%wZ]\n"};

struct WRITE_REQUEST : FILE_REQUEST {
    LARGE_INTEGER Offset;
    ULONG Length;
};

WRITE_REQUEST DescribeWrite(PDEVICE_OBJECT device, PIRP request) {
    const auto& write = IoGetCurrentIrpStackLocation(request)->Parameters.Write;
    return {DescribeRequest(device, request), write.ByteOffset, write.Length};
}

void TraceWrite(const WRITE_REQUEST& write) {
    if (write.Volume->SuppressWriteTrace) return;
    TraceRequest(kWriteTrace, write, write.Offset, write.Length);
}

// ---- disks -------------------------------------------------------------------------------------------------

// A disk's first sector says where its volumes lie: it stays as it is while one of them is protected. So do,
// under gHardening, both copies of its partition table.
BOOLEAN IsForBootArea(const WRITE_REQUEST& write) {
    if (write.Offset.QuadPart == 0) return TRUE;
    return gHardening && TouchesPartitionTable(write.Volume, write.Offset.QuadPart, write.Length);
}

NTSTATUS WriteDisk(PDEVICE_OBJECT device, PIRP request) {
    const WRITE_REQUEST write = DescribeWrite(device, request);
    TraceWrite(write);
    if (!IsForBootArea(write) || !HasProtectedVolume(device)) return PassIrpDown(device, request);
    DbgPrint("Kvr!Write: boot area direct access?\n");
    return CompleteRequest(request, STATUS_MEDIA_WRITE_PROTECTED);
}

// ---- captures: the write reaches the volume and shows where its file lies --------------------------------

// A name alone tells nothing: anybody can give a file such a one. On a volume that keeps its state the tool
// must be writing.
BOOLEAN MayCaptureConfig(PVOLUME_EXTENSION volume) {
    if (!gHardening || !gTesselEnabled || (!volume->IsProtected && !AreWritesRefused(volume))) return TRUE;
    return gConfigToolWrites != 0 && MayHoldConfig(volume);
}

BOOLEAN IsConfigCapture(const WRITE_REQUEST& write) {
    return MayCaptureConfig(write.Volume) && !IsConfigLocationComplete(write.Volume) &&
           IsForFileEnding(write, SpecialFileNames.ConfigFile);
}

NTSTATUS CaptureConfig(const WRITE_REQUEST& write) {
    const NTSTATUS status = ForwardIrpSynchronously(write.Device, write.Request);
    if (status == STATUS_SUCCESS) {
        DbgPrint("Kvr!Write: at %I64x %d bytes [%wZ:%wZ]\n", write.Offset.QuadPart, write.Length,
                 &write.Volume->VolumeName, write.Name);
        SwapAddConfigLocation(write.Volume, write.Offset.QuadPart, write.Length);
    }
    return CompleteForwarded(write.Request, status);
}

// Storage is being made, or was made since this boot.
BOOLEAN IsStorageCaptured(PVOLUME_EXTENSION volume) {
    return volume->SwapAllocating && !volume->SwapMapLoaded;
}

NTSTATUS CaptureMapFile(const WRITE_REQUEST& write) {
    const NTSTATUS status = ForwardIrpSynchronously(write.Device, write.Request);
    if (status == STATUS_SUCCESS) AddSwapMapChunk(write.Volume, write.Offset.QuadPart, write.Length);
    return CompleteForwarded(write.Request, status);
}

NTSTATUS CaptureSwapFile(const WRITE_REQUEST& write) {
    const NTSTATUS status = ForwardIrpSynchronously(write.Device, write.Request);
    if (status == STATUS_SUCCESS)
        KVR_DISCARD(AddSwapFreeChunk(write.Volume, &write.Offset, write.Length),
                    "space that cannot be recorded is not used; the write itself succeeded");
    return CompleteForwarded(write.Request, status);
}

// ---- refusals ----------------------------------------------------------------------------------------------

BOOLEAN IsOnNtfs(PFILE_OBJECT file) {
    if (!file || !file->Vpb || !file->Vpb->DeviceObject || !file->Vpb->DeviceObject->DriverObject) return FALSE;
    return EndsWithName(&SpecialFileNames.NtfsDriver, &file->Vpb->DeviceObject->DriverObject->DriverName,
                        TRUE) == 0;
}

NTSTATUS RefuseRemovable(const WRITE_REQUEST& write) {
    return CompleteRequest(write.Request,
                           IsOnNtfs(write.File) ? STATUS_NOT_SUPPORTED : STATUS_MEDIA_WRITE_PROTECTED);
}

// A write through a volume handle bypasses the file system, and so the names that keep the driver's own sectors
// apart.
BOOLEAN IsDirectAccess(const WRITE_REQUEST& write) {
    return write.File && (write.File->Flags & FO_VOLUME_OPEN) &&
           (write.Volume->PreloadConfigLocation[0] != 0 || write.Volume->MapLocation);
}

NTSTATUS RefuseDirectAccess(const WRITE_REQUEST& write) {
    if (!write.Volume->SuppressWriteTrace) DbgPrint("Kvr!Write: direct access BLOCKING\n");
    return CompleteRequest(write.Request, STATUS_MEDIA_WRITE_PROTECTED);
}

// ---- redirection -------------------------------------------------------------------------------------------

ARM_REASON ReasonToArm(const WRITE_REQUEST& write) {
    PVOLUME_EXTENSION volume = write.Volume;
    if (!write.Name || write.Name->Length == 0) return ARM_REASON::None;
    if (IsConfigLocationComplete(volume)) return ARM_REASON::ConfigFile;
    return volume->IsProtected || volume->MapLocation ? ARM_REASON::First : ARM_REASON::None;
}

BOOLEAN IsExempt(const WRITE_REQUEST& write) {
    if (!IsExemptFile(write)) return FALSE;
    if (IsForFileEnding(write, SpecialFileNames.BootStat)) KeSetEvent(&gBootStatusEvent, 0, FALSE);
    return TRUE;
}

// Files whose sectors the system reaches without the file system, or before this driver redirects.
BOOLEAN BelongsOnVolume(const WRITE_REQUEST& write) {
    if (gHardening) return IsExempt(write);
    if (IsKnownPagefile(write)) return TRUE;
    if (IsPagefileByName(write) || IsForFile(write, SpecialFileNames.HiberFile) ||
        IsForFile(write, SpecialFileNames.HibernateFile))
        return TRUE;
    if (IsForFileEnding(write, SpecialFileNames.BootStat)) {
        KeSetEvent(&gBootStatusEvent, 0, FALSE);
        return TRUE;
    }
    return IsForFile(write, SpecialFileNames.BootConfiguration);
}

// The SYSTEM hive is read before this driver can serve it: what is written to it does not outlast the boot.
BOOLEAN IsSystemHive(const WRITE_REQUEST& write) {
    return IsForFileEnding(write, SpecialFileNames.SystemHive) ||
           IsForFileEnding(write, SpecialFileNames.SystemHiveLog) ||
           IsForFileEnding(write, SpecialFileNames.SystemHiveLog1);
}

// Completes the request; the record is held by the caller.
NTSTATUS Redirect(const WRITE_REQUEST& write) {
    PVOLUME_EXTENSION volume = write.Volume;
    KVR_DISCARD(FlushWriteCache(volume), "what stays in the queue makes this write join it");
    // Both leave the place. A write that joins the queue has joined it by then, so the next one over its range
    // finds the queue not empty.
    WritePlace place(volume, &write.Offset, write.Length);
    NTSTATUS status = STATUS_SUCCESS;
    if (IsWriteCacheEmpty(volume->SwapFile))
        status = WriteSegments(volume, write.Request, IsSystemHive(write) ? 1 : 0, &place);
    else
        status = CacheWriteRequest(volume, write.Request, &place);
    SaveMapWhenDue(volume);
    return status;
}

BOOLEAN IsRedirecting(PVOLUME_EXTENSION volume) {
    return gTesselEnabled && volume->IsProtected && volume->SwapFile;
}

NTSTATUS Refuse(const WRITE_REQUEST& write, NTSTATUS status) {
    return CompleteRequest(write.Request, status);
}

// Under gHardening a write to a volume that is to keep its state reaches neither its own sectors nor a place
// that is not known.
NTSTATUS RedirectOrRefuse(const WRITE_REQUEST& write) {
    PVOLUME_EXTENSION volume = write.Volume;
    if (!gTesselEnabled || IsConfigurationUnderWay() || BelongsOnVolume(write))
        return PassIrpDown(write.Device, write.Request);
    if (volume->IsProtected) EnsureSwapMapLoaded(volume);
    if (AreWritesRefused(volume)) return Refuse(write, STATUS_MEDIA_WRITE_PROTECTED);
    if (!volume->IsProtected) return PassIrpDown(write.Device, write.Request);
    if (!volume->SwapFile) return Refuse(write, STATUS_INSUFFICIENT_RESOURCES);
    return IsMapUnread(volume) ? Refuse(write, STATUS_DEVICE_NOT_READY) : Redirect(write);
}

NTSTATUS RedirectOrPass(const WRITE_REQUEST& write) {
    PVOLUME_EXTENSION volume = write.Volume;
    if (!IsRedirecting(volume) || BelongsOnVolume(write) || IsConfigurationUnderWay())
        return PassIrpDown(write.Device, write.Request);
    // A write may come before the first read. Loading the map can find that the volume is not to be protected.
    EnsureSwapMapLoaded(volume);
    return IsRedirecting(volume) ? Redirect(write) : PassIrpDown(write.Device, write.Request);
}

// ---- volumes -----------------------------------------------------------------------------------------------

NTSTATUS WriteVolume(PDEVICE_OBJECT device, PIRP request) {
    const WRITE_REQUEST write = DescribeWrite(device, request);
    PVOLUME_EXTENSION volume = write.Volume;
    ProtectIfConfigured(volume);
    WriteBackConfig(device);
    if (IsConfigCapture(write)) return CaptureConfig(write);
    if (IsStorageCaptured(volume)) {
        if (IsForFile(write, SpecialFileNames.MapFile)) return CaptureMapFile(write);
        if (IsSwapFileName(write.Name)) return CaptureSwapFile(write);
    }
    const BOOLEAN guarded = gTesselEnabled && volume->IsProtected;
    if (guarded && write.File) TraceWrite(write);
    if (guarded && volume->MediaType != FixedMedia) return RefuseRemovable(write);
    if (IsDirectAccess(write)) return RefuseDirectAccess(write);
    AttachSwapFile(volume);
    StartArmThreadWhenDue(volume, ReasonToArm(write));
    return gHardening ? RedirectOrRefuse(write) : RedirectOrPass(write);
}

}  // namespace

NTSTATUS KvrWrite(PDEVICE_OBJECT device, PIRP request) {
    if (device == gControlDevice) return KvrDefaultDispatch(device, request);
    PVOLUME_EXTENSION volume = VolumeOf(device);
    const RecordHold hold(volume, request);
    if (hold.Failed()) return CompleteRequest(request, STATUS_DELETE_PENDING);
    if (!IsVolumeInList(volume)) return PassIrpDown(device, request);
    return volume->IsDisk ? WriteDisk(device, request) : WriteVolume(device, request);
}
