// Starting a device: what it is, where it lies, and what becomes of a removable volume.
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "config/config_location.h"
#include "driver/attach.h"
#include "driver/start.h"
#include "driver/record/hardening.h"
#include "driver/record/names.h"
#include "driver/record/requests.h"
#include "driver/record/volume_list.h"

namespace {

constexpr ULONG kRemovableSectorBytes = 512;
constexpr ULONG kLongestPropertyBytes = 0xFFFE;  // of a counted string

void LearnMedia(PVOLUME_EXTENSION volume) {
    PDEVICE_OBJECT target = volume->Target;
    if (target->Characteristics & FILE_REMOVABLE_MEDIA) {
        volume->BytesPerSector = kRemovableSectorBytes;
        volume->MediaType = RemovableMedia;
        return;
    }
    DbgPrint("Kvr!Device type %d\n", target->DeviceType);
    volume->BytesPerSector = target->SectorSize;
    volume->MediaType = FixedMedia;
}

void LearnClass(PVOLUME_EXTENSION volume) {
    if (IsDiskClassDevice(volume->PhysicalDeviceObject)) volume->IsDisk = TRUE;
    if (!IsVolumeClassDevice(volume->PhysicalDeviceObject)) return;
    KVR_DISCARD(GetVolumeExtents(volume), "a volume without extents is matched to disks by name");
    volume->IsVolume = TRUE;
    if (volume->MediaType != RemovableMedia) {
        KVR_DISCARD(LoadConfigLocation(volume), "most volumes do not hold the configuration");
    }
}

NTSTATUS HideVolume(PVOLUME_EXTENSION volume) {
    volume->IsInvisible = TRUE;
    return STATUS_ACCESS_DENIED;
}

NTSTATUS ApplyListedFlags(PVOLUME_EXTENSION volume, NTSTATUS status) {
    const ULONG flags = GetProtectedVolumeFlags(volume);
    if (flags & PV_PROTECTED) {
        volume->FilterDevice->Characteristics |= FILE_READ_ONLY_DEVICE;
        volume->IsProtected = TRUE;
    }
    return (flags & PV_INVISIBLE) ? HideVolume(volume) : status;
}

NTSTATUS ApplyRemovableDefaults(PVOLUME_EXTENSION volume, NTSTATUS status) {
    if (gRVProtect) volume->IsProtected = TRUE;
    return gRVInvisible ? HideVolume(volume) : status;
}

// A removable volume is never redirected: it is shown read-only, or its start fails and it stays hidden.
// Returns the start's status.
NTSTATUS DecideRemovable(PVOLUME_EXTENSION volume, NTSTATUS status) {
    if (volume->MediaType != RemovableMedia || !gTesselEnabled || volume->VolumeName.Length == 0) return status;
    return IsProtectedVolumeListed(volume) ? ApplyListedFlags(volume, status)
                                           : ApplyRemovableDefaults(volume, status);
}

// Does the device's property read `expected`, whatever the case?
BOOLEAN HasDeviceProperty(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property, PCWSTR expected) {
    ULONG length = 0;
    NTSTATUS status = IoGetDeviceProperty(pdo, property, 0, nullptr, &length);
    if (status != STATUS_BUFFER_TOO_SMALL || length < sizeof(WCHAR) || length > kLongestPropertyBytes)
        return FALSE;
    PoolPtr<UCHAR> buffer = NewBuffer(length);
    if (!buffer) return FALSE;
    ULONG filled = 0;
    status = IoGetDeviceProperty(pdo, property, length, buffer.Get(), &filled);
    if (!NT_SUCCESS(status)) return FALSE;
    UNICODE_STRING value{static_cast<USHORT>(length - sizeof(WCHAR)), static_cast<USHORT>(length),
                         reinterpret_cast<PWSTR>(buffer.Get())};
    UNICODE_STRING wanted;
    RtlInitUnicodeString(&wanted, expected);
    return CompareNames(&value, &wanted, TRUE) == 0;
}

// How many extents are really there: what the answer says, what fits, and what was returned.
ULONG CountExtents(const VOLUME_EXTENTS* extents, ULONG_PTR returnedBytes) {
    constexpr ULONG header = FIELD_OFFSET(VOLUME_EXTENTS, Extents);
    ULONG_PTR count = returnedBytes < header ? 0 : (returnedBytes - header) / sizeof(DISK_EXTENT);
    if (count > extents->NumberOfDiskExtents) count = extents->NumberOfDiskExtents;
    if (count > kMaxVolumeExtents) count = kMaxVolumeExtents;
    return static_cast<ULONG>(count);
}

// Sent to the filter itself, so that it passes the driver's own device-control filter like any other.
NTSTATUS QueryExtents(PVOLUME_EXTENSION volume, VOLUME_EXTENTS* extents, BOOLEAN* sent) {
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    PIRP request = IoBuildDeviceIoControlRequest(IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, volume->Target, nullptr,
                                                 0, extents, sizeof(VOLUME_EXTENTS), FALSE, &done, &iosb);
    *sent = request != nullptr;
    if (!request) return STATUS_INSUFFICIENT_RESOURCES;
    const NTSTATUS status = AwaitRequest(IofCallDriver(volume->FilterDevice, request), &done, &iosb);
    if (NT_SUCCESS(status)) extents->NumberOfDiskExtents = CountExtents(extents, iosb.Information);
    return status;
}

void ReportExtents(const VOLUME_EXTENTS* extents) {
    DbgPrint("Kvr!\tNumberOfDiskExtents: %d\n", extents->NumberOfDiskExtents);
    for (ULONG i = 0; i < extents->NumberOfDiskExtents; ++i) {
        const DISK_EXTENT& extent = extents->Extents[i];
        const LONGLONG start = extent.StartingOffset.QuadPart;
        const LONGLONG length = extent.ExtentLength.QuadPart;
        DbgPrint("Kvr!\tExtent[%d]: %d [%I64x-%I64x, length %I64x]\n", i, extent.DiskNumber, start,
                 start + length, length);
    }
}

}  // namespace

NTSTATUS StartDevice(PDEVICE_OBJECT device, PIRP request) {
    PVOLUME_EXTENSION volume = VolumeOf(device);
    LoadHardening();
    NTSTATUS status = ForwardIrpSynchronously(device, request);
    CopyTargetCharacteristics(device, volume->Target);
    LearnMedia(volume);
    FindVolumeName(volume, "Kvr!StartDevice: VolumeName: 0x%08x 0x%08x %wZ\n");
    LearnClass(volume);
    LearnPlace(volume);
    status = DecideRemovable(volume, status);
    volume->SuppressReadTrace = TRUE;
    volume->SuppressWriteTrace = TRUE;
    volume->SuppressControlTrace = TRUE;
    return CompleteRequest(request, status);
}

BOOLEAN IsDiskClassDevice(PDEVICE_OBJECT pdo) {
    return HasDeviceProperty(pdo, DevicePropertyClassGuid, W("{4D36E967-E325-11CE-BFC1-08002BE10318}"));
}

BOOLEAN IsVolumeClassDevice(PDEVICE_OBJECT pdo) {
    return HasDeviceProperty(pdo, DevicePropertyClassName, W("Volume"));
}

BOOLEAN GetVolumeExtents(PVOLUME_EXTENSION volume) {
    PoolPtr<VOLUME_EXTENTS> extents = NewRecord<VOLUME_EXTENTS>();
    if (!extents) return FALSE;
    BOOLEAN sent = FALSE;
    NTSTATUS status = QueryExtents(volume, extents.Get(), &sent);
    if (!sent) return FALSE;
    if (!NT_SUCCESS(status)) {
        DbgPrint("Kvr!ERROR: GetVolumeExtents: IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS 0x%08x\n", status);
        return FALSE;
    }
    {
        FastMutexLock lock(gVolumeListLock);
        volume->VolumeDiskExtents = *extents.Get();
    }
    ReportExtents(extents.Get());
    return TRUE;
}
