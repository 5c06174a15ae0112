#include "machine/disk/device_support.h"
#include <cstring>
#include "platform/host/io/device.h"
#include "platform/host/check/injector.h"

namespace machine {

std::u16string Decimal(unsigned number) {
    const std::string digits = std::to_string(number);
    return {digits.begin(), digits.end()};
}

NTSTATUS CreatePhysicalDevice(PDRIVER_OBJECT driver, std::u16string_view name, void* extension, bool removable,
                              std::uint32_t sectorSize, bool isDisk, PDEVICE_OBJECT& device) {
    UNICODE_STRING counted = Counted(name);
    const NTSTATUS status = IoCreateDevice(driver, sizeof(void*), &counted, FILE_DEVICE_DISK,
                                           removable ? FILE_REMOVABLE_MEDIA : 0, FALSE, &device);
    if (!NT_SUCCESS(status)) return status;
    *static_cast<void**>(device->DeviceExtension) = extension;
    device->SectorSize = static_cast<USHORT>(sectorSize);
    device->Flags |= DO_DIRECT_IO | DO_BUS_ENUMERATED_DEVICE;
    host::SetDeviceProperty(device, DevicePropertyClassName, isDisk ? kDiskClass : kVolumeClass);
    host::SetDeviceProperty(device, DevicePropertyClassGuid, isDisk ? kDiskClassGuid : kVolumeClassGuid);
    device->Flags &= ~DO_DEVICE_INITIALIZING;
    return STATUS_SUCCESS;
}

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS CompletePnp(PIRP irp) {
    switch (IoGetCurrentIrpStackLocation(irp)->MinorFunction) {
        case IRP_MN_START_DEVICE:
        case IRP_MN_QUERY_REMOVE_DEVICE:
        case IRP_MN_REMOVE_DEVICE:
        case IRP_MN_CANCEL_REMOVE_DEVICE:
        case IRP_MN_QUERY_CAPABILITIES:
            return Complete(irp, STATUS_SUCCESS);
        default:
            return Complete(irp, irp->IoStatus.Status, irp->IoStatus.Information);
    }
}

NTSTATUS CompletePower(PIRP irp) {
    PoStartNextPowerIrp(irp);
    return Complete(irp, STATUS_SUCCESS);
}

DirectBuffer::DirectBuffer(PIRP irp, LOCK_OPERATION operation) {
    const PMDL mdl = irp->MdlAddress;
    if (mdl == nullptr) {
        status_ = STATUS_INVALID_PARAMETER;
        return;
    }
    if ((mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL | MDL_PARTIAL)) == 0) {
        const host::FaultPause pause;
        status_ = TryExcept([&]() -> NTSTATUS {
            MmProbeAndLockPages(mdl, irp->RequestorMode, operation);
            return STATUS_SUCCESS;
        });
        if (!NT_SUCCESS(status_)) return;
        locked_ = mdl;
    }
    memory_ = static_cast<char*>(mdl->StartVa) + mdl->ByteOffset;
}

DirectBuffer::~DirectBuffer() {
    if (locked_ != nullptr) MmUnlockPages(locked_);
}

NTSTATUS Answer(PIRP irp, const void* record, ULONG bytes, ULONG_PTR& information) {
    const ULONG room = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength;
    if (room < bytes || irp->AssociatedIrp.SystemBuffer == nullptr) return STATUS_BUFFER_TOO_SMALL;
    std::memcpy(irp->AssociatedIrp.SystemBuffer, record, bytes);
    information = bytes;
    return STATUS_SUCCESS;
}

}  // namespace machine
