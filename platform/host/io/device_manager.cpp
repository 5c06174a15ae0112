#include <algorithm>
#include <memory>
#include <vector>
#include "platform/host/io/device.h"
#include "platform/host/io/device_table.h"
#include "platform/host/object/object.h"
#include "platform/host/io/request.h"
#include "platform/host/check/host_memory.h"
#include "platform/host/check/verifier.h"
#include "platform/host/sync/thread.h"

// Drivers, and what the managers for Plug and Play, power and shutdown do with devices.

namespace host {
namespace {

// What a driver object consists of; the platform's record comes first.
struct DriverBody {
    DRIVER_OBJECT object;
    DRIVER_EXTENSION extension;
    std::u16string name;
};

std::vector<PDRIVER_OBJECT> gDrivers KVR_GUARDED_BY(gDeviceLock);
// Referenced, in order of registration; who takes one from its end needs no memory.
using ShutdownList = std::vector<PDEVICE_OBJECT>;
ShutdownList gShutdownList KVR_GUARDED_BY(gDeviceLock);
ShutdownList gLastChanceList KVR_GUARDED_BY(gDeviceLock);

NTSTATUS RefuseRequest(PDEVICE_OBJECT, PIRP irp) {
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    irp->IoStatus.Information = 0;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

std::u16string ServicePath(std::u16string_view driverName) {
    const std::u16string_view last = driverName.substr(driverName.rfind(u'\\') + 1);
    return u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" + std::u16string(last);
}

UNICODE_STRING Counted(std::u16string& text) {
    const auto bytes = static_cast<USHORT>(text.size() * sizeof(WCHAR));
    return {bytes, static_cast<USHORT>(bytes + sizeof(WCHAR)), text.data()};
}

template <class Fill>
NTSTATUS SendToTop(PDEVICE_OBJECT device, UCHAR major, UCHAR minor, NTSTATUS initial, const Fill& fill) {
    RequireIrql("sending to a device stack", PASSIVE_LEVEL);
    ObjectRef<DEVICE_OBJECT> top(IoGetAttachedDeviceReference(device));
    // What the system itself asks of its devices, the end of a boot above all, is asked.
    SyncRequest sync(Insist("a request", [&] { return NewIrp(top->StackSize, nullptr, nullptr); }));
    sync.irp()->IoStatus.Status = initial;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(sync.irp());
    next->MajorFunction = major;
    next->MinorFunction = minor;
    fill(*next);
    return sync.Call(top.get()).status;
}

PDEVICE_OBJECT TakeLastRegistered(ShutdownList& list) {
    const HostGuard guard(gDeviceLock);
    if (list.empty()) return nullptr;
    PDEVICE_OBJECT device = list.back();
    list.pop_back();
    return device;
}

NTSTATUS Register(const char* routine, PDEVICE_OBJECT device, ShutdownList& list) {
    RequirePageable(routine, PASSIVE_LEVEL);
    CheckDevice(device, routine);
    return WithinMemory([&] {
        const HostGuard guard(gDeviceLock);
        list.push_back(device);
        ObfReferenceObject(device);
        device->Flags |= DO_SHUTDOWN_REGISTERED;
        return STATUS_SUCCESS;
    });
}

// The platform goes on with its shutdown whatever a driver answers.
void Notify(ShutdownList& list) {
    while (PDEVICE_OBJECT device = TakeLastRegistered(list)) {
        ObjectRef<DEVICE_OBJECT> reference(device);
        (void)SendShutdown(device);
    }
}

}  // namespace

PDRIVER_OBJECT CreateDriver(std::u16string_view name) {
    auto* body = MakeObject<DriverBody>(ObjectType::Driver);
    body->name = name;
    body->extension.DriverObject = &body->object;
    body->object.DriverExtension = &body->extension;
    body->object.DriverName = Counted(body->name);
    for (PDRIVER_DISPATCH& slot : body->object.MajorFunction) slot = RefuseRequest;
    ObjectRef<DRIVER_OBJECT> made(&body->object);
    const HostGuard guard(gDeviceLock);
    gDrivers.push_back(&body->object);
    return made.release();
}

NTSTATUS LoadDriver(PDRIVER_INITIALIZE entry, std::u16string_view name, PDRIVER_OBJECT& driver) {
    RequireIrql("LoadDriver", PASSIVE_LEVEL);
    driver = nullptr;
    std::u16string path = ServicePath(name);
    PDRIVER_OBJECT made = CreateDriver(name);
    UNICODE_STRING registryPath = Counted(path);
    const NTSTATUS status = entry(made, &registryPath);
    if (NT_SUCCESS(status)) {
        driver = made;
        return status;
    }
    if (made->DeviceObject != nullptr)
        Violation("driver failed and left a device", "device %p", static_cast<void*>(made->DeviceObject));
    {
        const HostGuard guard(gDeviceLock);
        std::erase(gDrivers, made);
    }
    ObfDereferenceObject(made);
    return status;
}

void SetDeviceProperty(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property, std::u16string_view value) {
    CheckDevice(pdo, "SetDeviceProperty");
    pdo->Host->HasProperties = true;
    (property == DevicePropertyClassName ? pdo->Host->ClassName : pdo->Host->ClassGuid) = value;
}

NTSTATUS AddDeviceToStack(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
    RequireIrql("AddDeviceToStack", PASSIVE_LEVEL);
    CheckDevice(pdo, "AddDeviceToStack");
    const PDRIVER_ADD_DEVICE addDevice = driver->DriverExtension->AddDevice;
    return addDevice == nullptr ? STATUS_SUCCESS : addDevice(driver, pdo);
}

NTSTATUS SendPnp(PDEVICE_OBJECT device, UCHAR minor) {
    return SendToTop(device, IRP_MJ_PNP, minor, STATUS_NOT_SUPPORTED, [](IO_STACK_LOCATION&) {});
}

NTSTATUS SendUsage(PDEVICE_OBJECT device, DEVICE_USAGE_NOTIFICATION_TYPE type, bool inPath) {
    return SendToTop(device, IRP_MJ_PNP, IRP_MN_DEVICE_USAGE_NOTIFICATION, STATUS_NOT_SUPPORTED,
                     [&](IO_STACK_LOCATION& next) {
                         next.Parameters.UsageNotification.InPath = inPath;
                         next.Parameters.UsageNotification.Type = type;
                     });
}

NTSTATUS SendPower(PDEVICE_OBJECT device, UCHAR minor, POWER_STATE_TYPE type, POWER_STATE state) {
    return SendToTop(device, IRP_MJ_POWER, minor, STATUS_NOT_SUPPORTED, [&](IO_STACK_LOCATION& next) {
        next.Parameters.Power.Type = type;
        next.Parameters.Power.State = state;
    });
}

NTSTATUS SendShutdown(PDEVICE_OBJECT device) {
    return SendToTop(device, IRP_MJ_SHUTDOWN, 0, STATUS_SUCCESS, [](IO_STACK_LOCATION&) {});
}

// The lists are handed on; who looks into one takes the lock.
void NotifyShutdown() KVR_NO_ANALYSIS {
    Notify(gShutdownList);
}

void NotifyLastChance() KVR_NO_ANALYSIS {
    bool& atLastChance = KeGetCurrentThread()->IsAtLastChance;
    atLastChance = true;
    Notify(gLastChanceList);
    atLastChance = false;
}

void DropShutdownLists() KVR_NO_ANALYSIS {
    for (ShutdownList* list : {&gShutdownList, &gLastChanceList})
        while (PDEVICE_OBJECT device = TakeLastRegistered(*list)) ObfDereferenceObject(device);
}

void DropAllDrivers() {
    std::vector<PDRIVER_OBJECT> drivers;
    {
        const HostGuard guard(gDeviceLock);
        drivers.swap(gDrivers);
    }
    for (PDRIVER_OBJECT driver : drivers) ObfDereferenceObject(driver);
}

}  // namespace host

NTSTATUS IoRegisterShutdownNotification(PDEVICE_OBJECT device) KVR_NO_ANALYSIS {
    return host::Register("IoRegisterShutdownNotification", device, host::gShutdownList);
}

NTSTATUS IoRegisterLastChanceShutdownNotification(PDEVICE_OBJECT device) KVR_NO_ANALYSIS {
    return host::Register("IoRegisterLastChanceShutdownNotification", device, host::gLastChanceList);
}

void IoUnregisterShutdownNotification(PDEVICE_OBJECT device) {
    host::RequirePageable("IoUnregisterShutdownNotification", APC_LEVEL);
    host::CheckDevice(device, "IoUnregisterShutdownNotification");
    SIZE_T registrations = 0;
    {
        const host::HostGuard guard(host::gDeviceLock);
        registrations = std::erase(host::gShutdownList, device) + std::erase(host::gLastChanceList, device);
        device->Flags &= ~DO_SHUTDOWN_REGISTERED;
    }
    for (; registrations > 0; --registrations) ObfDereferenceObject(device);
}
