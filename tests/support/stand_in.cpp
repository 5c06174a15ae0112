#include "tests/support/stand_in.h"
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

NTSTATUS End(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

void Leave(PDEVICE_OBJECT device) {
    auto* filter = static_cast<Filter*>(device->DeviceExtension);
    IoDetachDevice(filter->below);
    IoDeleteDevice(device);
}

// Passes everything on but the shutdown, and what the plan refuses.
NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp) {
    const auto& filter = *static_cast<Filter*>(device->DeviceExtension);
    const auto [major, minor] = std::pair(IoGetCurrentIrpStackLocation(irp)->MajorFunction,
                                          IoGetCurrentIrpStackLocation(irp)->MinorFunction);
    {
        const std::lock_guard hold(lock);
        const bool moves = major == IRP_MJ_READ || major == IRP_MJ_WRITE;
        const auto& place = IoGetCurrentIrpStackLocation(irp)->Parameters.Read;
        seen.push_back({major, minor, filter.name, moves ? place.ByteOffset.QuadPart : 0});
    }
    if (major == IRP_MJ_SHUTDOWN) {
        if (filter.isDisk && plan.detachDisksAtShutdown) Leave(device);
        return End(irp, STATUS_SUCCESS);
    }
    const bool isPnp = major == IRP_MJ_PNP;
    if (isPnp && minor == IRP_MN_QUERY_REMOVE_DEVICE && plan.refuseQueryRemove && !filter.isDisk)
        return End(irp, STATUS_INSUFFICIENT_RESOURCES);
    if (major == IRP_MJ_POWER) PoStartNextPowerIrp(irp);
    IoSkipCurrentIrpStackLocation(irp);
    const NTSTATUS status =
        major == IRP_MJ_POWER ? PoCallDriver(filter.below, irp) : IofCallDriver(filter.below, irp);
    if (isPnp && minor == IRP_MN_REMOVE_DEVICE) Leave(device);
    return status;
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
    if (NT_SUCCESS(ObQueryNameString(pdo, info, sizeof name, &length)))
        host::View(&info->Name).copy(filter->name, 63);
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

NTSTATUS Entry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    for (auto& routine : driver->MajorFunction) routine = Dispatch;
    driver->DriverExtension->AddDevice = AddDevice;
    return STATUS_SUCCESS;
}

}  // namespace stand_in
