// Attachment: a filter device with its record above every volume and disk that is offered.
#include "driver/attach.h"
#include "driver/record/requests.h"
#include "driver/record/volume_list.h"
#include "redirect/write_order.h"
#include "swap/swap.h"

namespace {

constexpr ULONG kNameQueryBytes = 256;  // for a name and its header
constexpr ULONG kInheritedCharacteristics = FILE_REMOVABLE_MEDIA | FILE_READ_ONLY_DEVICE | FILE_FLOPPY_DISKETTE;

// Before the device is attached: from then on requests may come, and they use RemoveLock.
PVOLUME_EXTENSION BeginRecord(PDEVICE_OBJECT filter, PDEVICE_OBJECT pdo) {
    PVOLUME_EXTENSION volume = ::new (filter->DeviceExtension) VOLUME_EXTENSION{};
    volume->Signature = kVolumeSignature;
    volume->DiskNumber = kUnknownDisk;
    volume->PhysicalDeviceObject = pdo;
    IoInitializeRemoveLock(&volume->RemoveLock, kPoolTag, 0, 0);
    KeInitializeMutex(&volume->StorageMutex, 0);
    KeInitializeMutex(&volume->MapLoadMutex, 0);
    KeInitializeMutex(&volume->UsageMutex, 0);
    return volume;
}

void CompleteRecord(PVOLUME_EXTENSION volume, PDEVICE_OBJECT filter) {
    volume->FilterDevice = filter;
    volume->VolumeName = {0, sizeof(volume->VolumeNameBuffer), volume->VolumeNameBuffer};
    ExInitializeFastMutex(&volume->SwapLock);
    InitWriteOrder(volume);
    InitSwapMaps(volume);
}

void CopyPowerFlags(PDEVICE_OBJECT filter, PDEVICE_OBJECT pdo) {
    filter->Flags |= (pdo->Flags & DO_POWER_INRUSH) ? DO_POWER_INRUSH : DO_POWER_PAGABLE;
}

// An answer that does not fit or fails counts as no name.
PUNICODE_STRING QueryDeviceName(PDEVICE_OBJECT device, POBJECT_NAME_INFORMATION info) {
    ULONG needed = 0;
    NTSTATUS status = ObQueryNameString(device, info, kNameQueryBytes, &needed);
    return NT_SUCCESS(status) && info->Name.Length != 0 ? &info->Name : nullptr;
}

// The reference is dropped at once: the stack below an attached filter stays.
PDEVICE_OBJECT NextLowerDevice(PDEVICE_OBJECT device) {
    PDEVICE_OBJECT lower = IoGetLowerDeviceObject(device);
    if (lower) ObDereferenceObject(lower);
    return lower;
}

}  // namespace

NTSTATUS AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
    DbgPrint("Kvr!AddDevice: Driver %X Device %X\n", TraceAddress(driver), TraceAddress(pdo));
    PDEVICE_OBJECT filter = nullptr;
    NTSTATUS status = IoCreateDevice(driver, sizeof(VOLUME_EXTENSION), nullptr, FILE_DEVICE_DISK,
                                     FILE_DEVICE_SECURE_OPEN, FALSE, &filter);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Kvr!AddDevice: Cannot create filterDeviceObject\n");
        return status;
    }
    filter->Flags |= DO_DIRECT_IO;
    PVOLUME_EXTENSION volume = BeginRecord(filter, pdo);
    volume->Target = IoAttachDeviceToDeviceStack(filter, pdo);
    if (!volume->Target) {
        IoDeleteDevice(filter);
        DbgPrint("Kvr!AddDevice: Unable to attach %X to target %X\n", TraceAddress(filter), TraceAddress(pdo));
        return STATUS_NO_SUCH_DEVICE;
    }
    CompleteRecord(volume, filter);
    LinkVolume(volume);
    FindVolumeName(volume, "Kvr!AddDevice: VolumeName: 0x%08x 0x%08x %wZ\n");
    DbgPrint("Kvr!AddDevice: flags 0x%08x 0x%08x 0x%08x\n", filter->Flags, pdo->Flags, volume->Target->Flags);
    CopyPowerFlags(filter, pdo);
    filter->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    KVR_DISCARD(IoRegisterShutdownNotification(filter),
                "without it the volume works all the same; its last changes may miss the shutdown");
    return STATUS_SUCCESS;
}

void FindVolumeName(PVOLUME_EXTENSION volume, PCSTR message) {
    if (volume->VolumeName.Length != 0) return;
    alignas(OBJECT_NAME_INFORMATION) UCHAR buffer[kNameQueryBytes];
    auto* info = reinterpret_cast<POBJECT_NAME_INFORMATION>(buffer);
    for (PDEVICE_OBJECT device = volume->Target; device; device = NextLowerDevice(device)) {
        PUNICODE_STRING name = QueryDeviceName(device, info);
        if (!name) continue;
        DbgPrint(message, TraceAddress(volume->FilterDevice), TraceAddress(volume->Target), name);
        // Walks of the list compare names, so the name appears in one piece.
        FastMutexLock lock(gVolumeListLock);
        RtlCopyUnicodeString(&volume->VolumeName, name);
        return;
    }
}

void CopyTargetCharacteristics(PDEVICE_OBJECT filter, PDEVICE_OBJECT target) {
    filter->Characteristics |= target->Characteristics & kInheritedCharacteristics;
}
