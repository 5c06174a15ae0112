#include "machine/disk/volume_device.h"
#include "machine/disk/device_support.h"

namespace machine {

NTSTATUS VolumeDevice::Create(PDRIVER_OBJECT driver, const DiskDevice& disk, unsigned number,
                              std::uint64_t offset, std::uint64_t length,
                              std::unique_ptr<VolumeDevice>& volume) {
    std::unique_ptr<VolumeDevice> made(new VolumeDevice(disk, number, offset, length));
    const NTSTATUS status = CreatePhysicalDevice(driver, made->name_, made.get(), disk.Removable(),
                                                 made->SectorSize(), false, made->device_);
    if (!NT_SUCCESS(status)) return status;
    made->Retarget();
    made->device_->StackSize = static_cast<CCHAR>(made->target_.load()->StackSize + 1);
    made->device_->Vpb = &made->vpb_;
    made->vpb_.RealDevice = made->device_;
    volume = std::move(made);
    return STATUS_SUCCESS;
}

void VolumeDevice::Fill(PDRIVER_OBJECT driver) {
    for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE, IRP_MJ_SHUTDOWN}) {
        driver->MajorFunction[major] = DispatchSucceed;
    }
    driver->MajorFunction[IRP_MJ_READ] = DispatchTransfer;
    driver->MajorFunction[IRP_MJ_WRITE] = DispatchTransfer;
    driver->MajorFunction[IRP_MJ_FLUSH_BUFFERS] = DispatchPassDown;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = DispatchControl;
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = DispatchControl;
    driver->MajorFunction[IRP_MJ_PNP] = DispatchPnp;
    driver->MajorFunction[IRP_MJ_POWER] = DispatchPower;
}

VolumeDevice::VolumeDevice(const DiskDevice& disk, unsigned number, std::uint64_t offset, std::uint64_t length)
    : name_(u"\\Device\\HarddiskVolume" + Decimal(number)),
      disk_(disk),
      number_(number),
      offset_(offset),
      length_(length) {
    referenced_.reserve(2);  // of the start and of the shutdown, which cannot be refused
}

void VolumeDevice::Retarget() {
    const PDEVICE_OBJECT top = IoGetAttachedDeviceReference(disk_.Device());
    referenced_.push_back(top);
    target_.store(top, std::memory_order_release);
}

void VolumeDevice::DropTargets() {
    target_.store(disk_.Device(), std::memory_order_release);
    for (PDEVICE_OBJECT top : referenced_) ObfDereferenceObject(top);
    referenced_.clear();
}

NTSTATUS VolumeDevice::PassDown(PIRP irp) const {
    return IofCallDriver(target_.load(std::memory_order_acquire), irp);
}

NTSTATUS VolumeDevice::DispatchTransfer(PDEVICE_OBJECT device, PIRP irp) {
    const VolumeDevice& volume = ExtensionOf<VolumeDevice>(device);
    // Reads and writes have one layout of parameters.
    const auto& asked = IoGetCurrentIrpStackLocation(irp)->Parameters.Read;
    const LONGLONG offset = asked.ByteOffset.QuadPart;
    const std::uint32_t sector = volume.SectorSize();
    if (offset < 0 || static_cast<std::uint64_t>(offset) > volume.length_ ||
        asked.Length > volume.length_ - static_cast<std::uint64_t>(offset) ||
        static_cast<std::uint64_t>(offset) % sector != 0 || asked.Length % sector != 0) {
        return Complete(irp, STATUS_INVALID_PARAMETER);
    }
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoGetNextIrpStackLocation(irp)->Parameters.Read.ByteOffset.QuadPart +=
        static_cast<LONGLONG>(volume.offset_);
    return volume.PassDown(irp);
}

NTSTATUS VolumeDevice::DispatchPassDown(PDEVICE_OBJECT device, PIRP irp) {
    IoCopyCurrentIrpStackLocationToNext(irp);
    return ExtensionOf<VolumeDevice>(device).PassDown(irp);
}

NTSTATUS VolumeDevice::DispatchControl(PDEVICE_OBJECT device, PIRP irp) {
    const VolumeDevice& volume = ExtensionOf<VolumeDevice>(device);
    switch (IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode) {
        case IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS:
            return volume.AnswerExtents(irp);
        case IOCTL_DISK_GET_LENGTH_INFO: {
            LARGE_INTEGER size;
            size.QuadPart = static_cast<LONGLONG>(volume.length_);
            ULONG_PTR information = 0;
            const NTSTATUS status = Answer(irp, &size, sizeof size, information);
            return Complete(irp, status, information);
        }
        case IOCTL_STORAGE_MANAGE_DATA_SET_ATTRIBUTES:
            for (DataSetRange& range : TrimRanges(irp)) {
                if (!volume.Holds(range)) return Complete(irp, STATUS_INVALID_PARAMETER);
                range.offset += static_cast<LONGLONG>(volume.offset_);
            }
            return DispatchPassDown(device, irp);
        default:
            return DispatchPassDown(device, irp);
    }
}

bool VolumeDevice::Holds(const DataSetRange& range) const {
    return range.offset >= 0 && static_cast<std::uint64_t>(range.offset) <= length_ &&
           range.length <= length_ - static_cast<std::uint64_t>(range.offset);
}

NTSTATUS VolumeDevice::AnswerExtents(PIRP irp) const {
    VOLUME_DISK_EXTENTS extents{};
    extents.NumberOfDiskExtents = 1;
    extents.Extents[0].DiskNumber = disk_.Number();
    extents.Extents[0].StartingOffset.QuadPart = static_cast<LONGLONG>(offset_);
    extents.Extents[0].ExtentLength.QuadPart = static_cast<LONGLONG>(length_);
    ULONG_PTR information = 0;
    const NTSTATUS status = Answer(irp, &extents, sizeof extents, information);
    return Complete(irp, status, information);
}

NTSTATUS VolumeDevice::DispatchPnp(PDEVICE_OBJECT, PIRP irp) {
    return CompletePnp(irp);
}

NTSTATUS VolumeDevice::DispatchPower(PDEVICE_OBJECT, PIRP irp) {
    return CompletePower(irp);
}

NTSTATUS VolumeDevice::DispatchSucceed(PDEVICE_OBJECT, PIRP irp) {
    return Complete(irp, STATUS_SUCCESS);
}

}  // namespace machine
