#include "platform/host/io/device.h"
#include <vector>
#include "platform/host/io/device_table.h"
#include "platform/host/check/injector.h"
#include "platform/host/object/namespace.h"
#include "platform/host/object/object.h"
#include "platform/host/check/host_memory.h"
#include "platform/host/check/verifier.h"

namespace host {

HostLock gDeviceLock;

namespace {

std::vector<PDEVICE_OBJECT> gDevices KVR_GUARDED_BY(gDeviceLock);

constexpr SIZE_T kExtensionOffset = (sizeof(DEVICE_OBJECT) + sizeof(HostDevice) + 15) / 16 * 16;
static_assert(sizeof(DEVICE_OBJECT) % alignof(HostDevice) == 0);

// Runs when the last reference goes; the block is freed right after.
void DestroyDevice(void* body) {
    auto* device = static_cast<PDEVICE_OBJECT>(body);
    {
        const HostGuard guard(gDeviceLock);
        std::erase(gDevices, device);
    }
    if (!device->Host->Deleted)
        Violation("device dereferenced too often", "device %p was not deleted", static_cast<void*>(device));
    device->Host->~HostDevice();
    RtlFillMemory(device, kExtensionOffset, 0xDD);
}

PDEVICE_OBJECT NewDevice(PDRIVER_OBJECT driver, ULONG extensionSize) {
    auto* device = static_cast<PDEVICE_OBJECT>(
        AllocateObject(ObjectType::Device, kExtensionOffset + extensionSize, DestroyDevice));
    if (device == nullptr) return nullptr;
    device->Host = new (device + 1) HostDevice;
    if (extensionSize != 0) device->DeviceExtension = reinterpret_cast<char*>(device) + kExtensionOffset;
    device->DriverObject = driver;
    device->StackSize = 1;
    return device;
}

// The last step of a device's making that can fail.
void LinkDevice(PDEVICE_OBJECT device) {
    const HostGuard guard(gDeviceLock);
    gDevices.push_back(device);
    device->NextDevice = device->DriverObject->DeviceObject;
    device->DriverObject->DeviceObject = device;
}

void UnlinkDevice(PDEVICE_OBJECT device) KVR_REQUIRES(gDeviceLock) {
    PDEVICE_OBJECT* link = &device->DriverObject->DeviceObject;
    while (*link != nullptr && *link != device) link = &(*link)->NextDevice;
    if (*link == device) *link = device->NextDevice;
    device->NextDevice = nullptr;
}

PDEVICE_OBJECT Top(PDEVICE_OBJECT device) KVR_REQUIRES(gDeviceLock) {
    while (device->AttachedDevice != nullptr) device = device->AttachedDevice;
    return device;
}

void CheckDeletable(PDEVICE_OBJECT device) KVR_REQUIRES(gDeviceLock) {
    if (device->Host->Deleted) Violation("device deleted twice", "device %p", static_cast<void*>(device));
    if (device->AttachedDevice != nullptr)
        Violation("device deleted under another", "device %p: %p is attached to it", static_cast<void*>(device),
                  static_cast<void*>(device->AttachedDevice));
    if (device->Host->Lower != nullptr)
        Violation("device deleted while attached", "device %p: still attached to %p",
                  static_cast<void*>(device), static_cast<void*>(device->Host->Lower));
}

}  // namespace

void StopAtDeadDevice(PDEVICE_OBJECT device, const char* caller) {
    Violation("device used after its end", "%s: %p is no device", caller, static_cast<void*>(device));
}

PDEVICE_OBJECT TopOfStack(PDEVICE_OBJECT device) {
    CheckDevice(device, "TopOfStack");
    const HostGuard guard(gDeviceLock);
    return Top(device);
}

ULONG DeviceCount() {
    const HostGuard guard(gDeviceLock);
    return static_cast<ULONG>(gDevices.size());
}

void DropAllDevices() {
    const std::vector<PDEVICE_OBJECT> devices = Insist("the list of devices", [] {
        const HostGuard guard(gDeviceLock);
        return gDevices;
    });
    for (PDEVICE_OBJECT device : devices) {
        device->Host->Deleted = true;
        for (LONG n = ReferencesOf(device); n > 0; --n) ObfDereferenceObject(device);
    }
}

}  // namespace host

using host::CheckDevice;
using host::HostGuard;
using host::RequireIrql;

NTSTATUS IoCreateDevice(PDRIVER_OBJECT driver, ULONG extensionSize, PUNICODE_STRING name, DEVICE_TYPE type,
                        ULONG characteristics, BOOLEAN exclusive, PDEVICE_OBJECT* device) {
    RequireIrql("IoCreateDevice", APC_LEVEL);
    *device = nullptr;
    if (host::InjectFault(host::Fault::CreateDevice)) return STATUS_INSUFFICIENT_RESOURCES;
    PDEVICE_OBJECT made = host::NewDevice(driver, extensionSize);
    if (made == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    made->DeviceType = type;
    made->Characteristics = characteristics;
    made->Flags = DO_DEVICE_INITIALIZING | (exclusive ? DO_EXCLUSIVE : 0);
    const NTSTATUS status = host::WithinMemory([&] {
        if (name != nullptr && name->Length != 0) {
            made->Host->Name = host::View(name);
            const NTSTATUS named = host::AddDeviceName(host::View(name), made);
            if (!NT_SUCCESS(named)) return named;
        }
        host::LinkDevice(made);
        return STATUS_SUCCESS;
    });
    if (NT_SUCCESS(status)) {
        *device = made;
        return status;
    }
    host::RemoveDeviceName(made);
    made->Host->Deleted = true;
    ObfDereferenceObject(made);
    return status;
}

void IoDeleteDevice(PDEVICE_OBJECT device) {
    RequireIrql("IoDeleteDevice", APC_LEVEL);
    CheckDevice(device, "IoDeleteDevice");
    if ((device->Flags & DO_SHUTDOWN_REGISTERED) != 0) IoUnregisterShutdownNotification(device);
    {
        const HostGuard guard(host::gDeviceLock);
        host::CheckDeletable(device);
        host::UnlinkDevice(device);
        device->Host->Deleted = true;
    }
    host::UnmountProvider(device);
    if (!device->Host->Name.empty()) host::RemoveDeviceName(device);
    ObfDereferenceObject(device);
}

PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT source, PDEVICE_OBJECT target) {
    RequireIrql("IoAttachDeviceToDeviceStack", APC_LEVEL);
    CheckDevice(source, "IoAttachDeviceToDeviceStack");
    CheckDevice(target, "IoAttachDeviceToDeviceStack");
    if (host::InjectFault(host::Fault::CreateDevice)) return nullptr;
    const HostGuard guard(host::gDeviceLock);
    if (source->Host->Lower != nullptr)
        host::Violation("device attached twice", "device %p", static_cast<void*>(source));
    PDEVICE_OBJECT top = host::Top(target);
    if ((top->Flags & DO_DEVICE_INITIALIZING) != 0 || top->Host->Deleted) return nullptr;
    top->AttachedDevice = source;
    source->Host->Lower = top;
    source->StackSize = static_cast<CCHAR>(top->StackSize + 1);
    source->AlignmentRequirement = top->AlignmentRequirement;
    source->SectorSize = top->SectorSize;
    return top;
}

void IoDetachDevice(PDEVICE_OBJECT target) {
    RequireIrql("IoDetachDevice", APC_LEVEL);
    CheckDevice(target, "IoDetachDevice");
    const HostGuard guard(host::gDeviceLock);
    if (target->AttachedDevice == nullptr)
        host::Violation("nothing to detach", "no device is attached to %p", static_cast<void*>(target));
    target->AttachedDevice->Host->Lower = nullptr;
    target->AttachedDevice = nullptr;
}

PDEVICE_OBJECT IoGetAttachedDeviceReference(PDEVICE_OBJECT device) {
    CheckDevice(device, "IoGetAttachedDeviceReference");
    const HostGuard guard(host::gDeviceLock);
    PDEVICE_OBJECT top = host::Top(device);
    ObfReferenceObject(top);
    return top;
}

PDEVICE_OBJECT IoGetLowerDeviceObject(PDEVICE_OBJECT device) {
    CheckDevice(device, "IoGetLowerDeviceObject");
    const HostGuard guard(host::gDeviceLock);
    PDEVICE_OBJECT lower = device->Host->Lower;
    if (lower == nullptr || lower->Host->Deleted) return nullptr;
    ObfReferenceObject(lower);
    return lower;
}

NTSTATUS IoGetDeviceProperty(PDEVICE_OBJECT device, DEVICE_REGISTRY_PROPERTY property, ULONG length,
                             PVOID buffer, PULONG resultLength) {
    host::RequirePageable("IoGetDeviceProperty", PASSIVE_LEVEL);
    CheckDevice(device, "IoGetDeviceProperty");
    *resultLength = 0;
    if (!device->Host->HasProperties) return STATUS_INVALID_DEVICE_REQUEST;
    const std::u16string& value =
        property == DevicePropertyClassName ? device->Host->ClassName : device->Host->ClassGuid;
    if (value.empty()) return STATUS_OBJECT_NAME_NOT_FOUND;
    const SIZE_T bytes = (value.size() + 1) * sizeof(WCHAR);
    *resultLength = static_cast<ULONG>(bytes);
    if (length < bytes) return STATUS_BUFFER_TOO_SMALL;
    RtlCopyMemory(buffer, value.c_str(), bytes);
    return STATUS_SUCCESS;
}

NTSTATUS ObQueryNameString(PVOID object, POBJECT_NAME_INFORMATION info, ULONG length, PULONG returnLength) {
    host::RequirePageable("ObQueryNameString", PASSIVE_LEVEL);
    std::u16string_view name;
    if (host::TypeOf(object) == host::ObjectType::Device)
        name = static_cast<PDEVICE_OBJECT>(object)->Host->Name;
    if (host::TypeOf(object) == host::ObjectType::Driver)
        name = host::View(&static_cast<PDRIVER_OBJECT>(object)->DriverName);
    const SIZE_T characters = name.empty() ? 0 : (name.size() + 1) * sizeof(WCHAR);
    const ULONG needed = static_cast<ULONG>(sizeof(OBJECT_NAME_INFORMATION) + characters);
    *returnLength = needed;
    if (length < needed) return STATUS_INFO_LENGTH_MISMATCH;
    info->Name = {};
    if (name.empty()) return STATUS_SUCCESS;
    info->Name.Length = static_cast<USHORT>(name.size() * sizeof(WCHAR));
    info->Name.MaximumLength = static_cast<USHORT>(characters);
    info->Name.Buffer = reinterpret_cast<PWSTR>(info + 1);
    RtlCopyMemory(info->Name.Buffer, name.data(), info->Name.Length);
    info->Name.Buffer[name.size()] = 0;
    return STATUS_SUCCESS;
}
