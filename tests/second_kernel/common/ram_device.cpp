#include "tests/second_kernel/common/ram_device.h"
#include <cstring>
#include <new>
#include "platform/host/io/device.h"
#include "tests/second_kernel/common/completer.h"
#include "tests/second_kernel/stage.h"

namespace {

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS CheckTransfer(RamDevice* ram, PIO_STACK_LOCATION location) {
    const auto& place = location->Parameters.Read;
    const LONGLONG offset = place.ByteOffset.QuadPart;
    const ULONG sector = ram->Device->SectorSize;
    if (offset < 0 || offset % sector != 0 || place.Length % sector != 0) return STATUS_INVALID_PARAMETER;
    if (static_cast<ULONGLONG>(offset) + place.Length > ram->Size) return STATUS_INVALID_PARAMETER;
    return STATUS_SUCCESS;
}

NTSTATUS MoveSectors(RamDevice* ram, PIRP irp, PIO_STACK_LOCATION location) {
    const auto& place = location->Parameters.Read;
    if (place.Length == 0) return STATUS_SUCCESS;
    if (!irp->MdlAddress) return STATUS_INVALID_PARAMETER;
    PVOID buffer = MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority | MdlMappingNoExecute);
    if (!buffer) return STATUS_INSUFFICIENT_RESOURCES;
    PUCHAR sectors = ram->Sectors + place.ByteOffset.QuadPart;
    if (location->MajorFunction == IRP_MJ_WRITE)
        std::memcpy(sectors, buffer, place.Length);
    else
        std::memcpy(buffer, sectors, place.Length);
    return STATUS_SUCCESS;
}

// Moves the data and notes the result, for the completion.
void CarryTransfer(PIRP irp) {
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    RamDevice* ram = RamOf(location->DeviceObject);
    NTSTATUS status = CheckTransfer(ram, location);
    if (NT_SUCCESS(status)) status = MoveSectors(ram, irp, location);
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = NT_SUCCESS(status) ? location->Parameters.Read.Length : 0;
}

void CarrySimple(PIRP irp) {
    irp->IoStatus.Status = STATUS_SUCCESS;
    irp->IoStatus.Information = 0;
}

// As a disk that sleeps does; its requests stay on their way until it wakes.
void WaitWhileAsleep(RamDevice* ram) {
    (void)KeWaitForSingleObject(&ram->Awake, Executive, KernelMode, FALSE, nullptr);
}

NTSTATUS ServePower(RamDevice* ram, PIRP irp, PIO_STACK_LOCATION location) {
    if (location->Parameters.Power.Type == SystemPowerState) {
        if (location->Parameters.Power.State.SystemState == PowerSystemSleeping3)
            KeClearEvent(&ram->Awake);
        else
            KeSetEvent(&ram->Awake, IO_NO_INCREMENT, FALSE);
    }
    PoStartNextPowerIrp(irp);
    return Complete(irp, STATUS_SUCCESS);
}

NTSTATUS PendOrCarry(PIRP irp, void (*carry)(PIRP)) {
    if (PendRequest(irp, carry)) return STATUS_PENDING;
    carry(irp);
    return Complete(irp, irp->IoStatus.Status, irp->IoStatus.Information);
}

// As a volume manager does: the same request, at its place on the disk.
NTSTATUS PassToDisk(RamDevice* ram, PIRP irp) {
    const NTSTATUS status = CheckTransfer(ram, IoGetCurrentIrpStackLocation(irp));
    if (!NT_SUCCESS(status)) return Complete(irp, status);
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoGetNextIrpStackLocation(irp)->Parameters.Read.ByteOffset.QuadPart += ram->Start;
    return IoCallDriver(host::TopOfStack(ram->Disk), irp);  // filters leave a disk's stack at shutdown
}

void TellExtents(PIRP irp) {
    const RamDevice* ram = RamOf(IoGetCurrentIrpStackLocation(irp)->DeviceObject);
    auto* extents = static_cast<PVOLUME_DISK_EXTENTS>(irp->AssociatedIrp.SystemBuffer);
    RtlZeroMemory(extents, sizeof(VOLUME_DISK_EXTENTS));
    extents->NumberOfDiskExtents = 1;
    extents->Extents[0].DiskNumber = 7;
    extents->Extents[0].StartingOffset.QuadPart = ram->Start;
    extents->Extents[0].ExtentLength.QuadPart = static_cast<LONGLONG>(ram->Size);
    irp->IoStatus.Status = STATUS_SUCCESS;
    irp->IoStatus.Information = sizeof(VOLUME_DISK_EXTENTS);
}

NTSTATUS PassOn(RamDevice* ram, PIRP irp) {
    const bool isPower = IoGetCurrentIrpStackLocation(irp)->MajorFunction == IRP_MJ_POWER;
    if (isPower) PoStartNextPowerIrp(irp);
    IoSkipCurrentIrpStackLocation(irp);
    return isPower ? PoCallDriver(ram->Next, irp) : IoCallDriver(ram->Next, irp);
}

NTSTATUS ServePnp(RamDevice* ram, PIRP irp, UCHAR minor) {
    ++ram->ArrivedPnp[minor];
    if (minor == IRP_MN_START_DEVICE) return PendOrCarry(irp, CarrySimple);
    const bool isServed = minor == IRP_MN_QUERY_REMOVE_DEVICE || minor == IRP_MN_REMOVE_DEVICE ||
                          minor == IRP_MN_DEVICE_USAGE_NOTIFICATION;
    return Complete(irp, isServed ? STATUS_SUCCESS : irp->IoStatus.Status);
}

NTSTATUS Serve(PDEVICE_OBJECT device, PIRP irp) {
    RamDevice* ram = RamOf(device);
    if (ram->Next) return PassOn(ram, irp);
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    if (location->MajorFunction == IRP_MJ_DEVICE_CONTROL &&
        location->Parameters.DeviceIoControl.IoControlCode == IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS)
        return PendOrCarry(irp, TellExtents);
    ++ram->Arrived[location->MajorFunction];
    switch (location->MajorFunction) {
        case IRP_MJ_READ:
        case IRP_MJ_WRITE:
            WaitWhileAsleep(ram);
            return ram->Disk ? PassToDisk(ram, irp) : PendOrCarry(irp, CarryTransfer);
        case IRP_MJ_FLUSH_BUFFERS:
            return PendOrCarry(irp, CarrySimple);
        case IRP_MJ_PNP:
            return ServePnp(ram, irp, location->MinorFunction);
        case IRP_MJ_POWER:
            return ServePower(ram, irp, location);
        default:
            return Complete(irp, STATUS_SUCCESS);
    }
}

void FillRamDevice(PDEVICE_OBJECT device, const RamOptions& options) {
    RamDevice* ram = ::new (device->DeviceExtension) RamDevice{};
    ram->Device = device;
    ram->Sectors = options.Sectors;
    ram->Size = options.Size;
    ram->Start = options.Start;
    KeInitializeEvent(&ram->Awake, NotificationEvent, TRUE);
    ram->Disk = options.Disk;
    if (options.Disk) device->StackSize = static_cast<CCHAR>(host::TopOfStack(options.Disk)->StackSize + 1);
}

}  // namespace

PDEVICE_OBJECT MakeRamDevice(const RamOptions& options) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, options.Name);
    PDRIVER_OBJECT driver = stage::OwnDriver();
    for (ULONG major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; ++major) driver->MajorFunction[major] = Serve;
    PDEVICE_OBJECT device = nullptr;
    const NTSTATUS status = IoCreateDevice(driver, sizeof(RamDevice), &name, FILE_DEVICE_DISK,
                                           options.IsRemovable ? FILE_REMOVABLE_MEDIA : 0, FALSE, &device);
    if (!stage::CheckStatus(status, STATUS_SUCCESS, "a device of the story")) return nullptr;
    device->Flags |= DO_DIRECT_IO;
    device->SectorSize = options.SectorSize;
    FillRamDevice(device, options);
    host::SetDeviceProperty(device, DevicePropertyClassName, options.IsDisk ? W("DiskDrive") : W("Volume"));
    host::SetDeviceProperty(device, DevicePropertyClassGuid,
                            options.IsDisk ? W("{4d36e967-e325-11ce-bfc1-08002be10318}")
                                           : W("{71a27cdd-812a-11d0-bec7-08002be2092f}"));
    device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return device;
}

bool AddPassingFilter(PDEVICE_OBJECT device) {
    PDEVICE_OBJECT filter = nullptr;
    const NTSTATUS status =
        IoCreateDevice(stage::OwnDriver(), sizeof(RamDevice), nullptr, FILE_DEVICE_DISK, 0, FALSE, &filter);
    if (!stage::CheckStatus(status, STATUS_SUCCESS, "a filter of the story")) return false;
    RamDevice* ram = ::new (filter->DeviceExtension) RamDevice{};
    ram->Device = filter;
    filter->Flags |= DO_DIRECT_IO;
    filter->Characteristics = device->Characteristics;
    ram->Next = IoAttachDeviceToDeviceStack(filter, device);
    filter->SectorSize = device->SectorSize;
    filter->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return stage::Check(ram->Next == device, "the filter is attached to the device");
}

void DeleteRamDevice(PDEVICE_OBJECT device) {
    PDEVICE_OBJECT filter = host::TopOfStack(device);
    if (filter != device) {
        IoDetachDevice(device);
        IoDeleteDevice(filter);
    }
    IoDeleteDevice(device);
}
