#include "tests/support/stand_in.h"
#include <algorithm>
#include "platform/host/object/namespace.h"
#include "platform/owners.h"

namespace stand_in {
namespace {

struct Filter {
    PDEVICE_OBJECT below;
    bool isDisk;
    WCHAR name[64];
};

Plan plan;
std::mutex lock;
std::vector<Seen> seen;

void Note(PDEVICE_OBJECT device, PIRP irp) {
    const auto& at = *IoGetCurrentIrpStackLocation(irp);
    Seen entry{at.MajorFunction, at.MinorFunction, {}, 0, 0, {}};
    entry.device = static_cast<Filter*>(device->DeviceExtension)->name;
    if (at.MajorFunction == IRP_MJ_READ || at.MajorFunction == IRP_MJ_WRITE) {
        entry.offset = at.Parameters.Read.ByteOffset.QuadPart;
        entry.length = at.Parameters.Read.Length;
        if (at.FileObject != nullptr) entry.file = host::View(&at.FileObject->FileName);
    }
    std::lock_guard hold(lock);
    seen.push_back(std::move(entry));
}

NTSTATUS End(PIRP irp, NTSTATUS status, ULONG_PTR information = 0) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS Pass(PDEVICE_OBJECT device, PIRP irp) {
    Note(device, irp);
    const PDEVICE_OBJECT below = static_cast<Filter*>(device->DeviceExtension)->below;
    IoSkipCurrentIrpStackLocation(irp);
    return IofCallDriver(below, irp);
}

NTSTATUS Pnp(PDEVICE_OBJECT device, PIRP irp) {
    const Filter filter = *static_cast<Filter*>(device->DeviceExtension);
    const UCHAR minor = IoGetCurrentIrpStackLocation(irp)->MinorFunction;
    Note(device, irp);
    if (minor == IRP_MN_QUERY_REMOVE_DEVICE && plan.refuseQueryRemove && !filter.isDisk) {
        return End(irp, STATUS_INSUFFICIENT_RESOURCES);
    }
    IoSkipCurrentIrpStackLocation(irp);
    const NTSTATUS status = IofCallDriver(filter.below, irp);
    if (minor == IRP_MN_REMOVE_DEVICE) {
        IoDetachDevice(filter.below);
        IoDeleteDevice(device);
    }
    return status;
}

NTSTATUS Power(PDEVICE_OBJECT device, PIRP irp) {
    Note(device, irp);
    const PDEVICE_OBJECT below = static_cast<Filter*>(device->DeviceExtension)->below;
    PoStartNextPowerIrp(irp);
    IoSkipCurrentIrpStackLocation(irp);
    return PoCallDriver(below, irp);
}

NTSTATUS Shutdown(PDEVICE_OBJECT device, PIRP irp) {
    const Filter filter = *static_cast<Filter*>(device->DeviceExtension);
    Note(device, irp);
    if (filter.isDisk && plan.detachDisksAtShutdown) {
        IoDetachDevice(filter.below);
        IoDeleteDevice(device);
    }
    return End(irp, STATUS_SUCCESS);
}

NTSTATUS AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
    PDEVICE_OBJECT device = nullptr;
    const NTSTATUS status =
        IoCreateDevice(driver, sizeof(Filter), nullptr, FILE_DEVICE_DISK, 0, FALSE, &device);
    if (!NT_SUCCESS(status)) return status;
    auto* filter = static_cast<Filter*>(device->DeviceExtension);
    alignas(OBJECT_NAME_INFORMATION) UCHAR name[256] = {};
    auto* info = reinterpret_cast<POBJECT_NAME_INFORMATION>(name);
    ULONG length = 0;
    if (NT_SUCCESS(ObQueryNameString(pdo, info, sizeof name, &length))) {
        std::copy_n(info->Name.Buffer, std::min<std::size_t>(info->Name.Length / 2u, 63), filter->name);
    }
    filter->isDisk = std::u16string_view(filter->name).find(u"DR") != std::u16string_view::npos;
    device->Flags |= DO_DIRECT_IO;
    filter->below = IoAttachDeviceToDeviceStack(device, pdo);
    device->Flags &= ~DO_DEVICE_INITIALIZING;
    IoRegisterShutdownNotification(device);
    return STATUS_SUCCESS;
}

}  // namespace

void Reset(const Plan& next) {
    std::lock_guard hold(lock);
    plan = next;
    seen.clear();
}

std::vector<Seen> TakeSeen() {
    std::lock_guard hold(lock);
    return std::exchange(seen, {});
}

unsigned CountOf(UCHAR major, int minor) {
    std::lock_guard hold(lock);
    return static_cast<unsigned>(std::count_if(seen.begin(), seen.end(), [&](const Seen& s) {
        return s.major == major && (minor < 0 || s.minor == minor);
    }));
}

NTSTATUS Entry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    for (auto& routine : driver->MajorFunction) routine = Pass;
    driver->MajorFunction[IRP_MJ_PNP] = Pnp;
    driver->MajorFunction[IRP_MJ_POWER] = Power;
    driver->MajorFunction[IRP_MJ_SHUTDOWN] = Shutdown;
    driver->DriverExtension->AddDevice = AddDevice;
    return STATUS_SUCCESS;
}

}  // namespace stand_in
