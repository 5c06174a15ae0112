// The I/O half of the host kernel, as a machine and its tests see it: drivers and their devices here, requests
// in irp.h and request.h, buffers in mdl.h, names in namespace.h, programs in user_mode.h, and the whole
// kernel's power in kernel_host.h. The drivers themselves see only the kernel's own names (ntio.h, ntzw.h).
//
// Devices, drivers and the shutdown list are guarded by one lock of their own, which no request takes:
// IofCallDriver, IofCompleteRequest and the buffers never touch it.
#pragma once
#include <string>
#include <string_view>
#include "platform/host/nt/ntio.h"

namespace host {
inline constexpr ULONG kDeviceMagic = 0x65447648;
}

// The host kernel's own part of a device object; it lies behind it in the same block.
struct HostDevice {
    ULONG Magic = host::kDeviceMagic;
    bool Deleted = false;            // IoDeleteDevice was called; references may keep the memory
    ULONG Opens = 0;                 // file objects made by OpenDevice
    PDEVICE_OBJECT Lower = nullptr;  // the device that this one is attached to
    std::u16string Name;             // empty: unnamed
    bool HasProperties = false;
    std::u16string ClassName;
    std::u16string ClassGuid;
};

namespace host {

// Makes a driver object under its full name ("\Driver\kvr"); every MajorFunction slot fails its requests with
// STATUS_INVALID_DEVICE_REQUEST until the driver fills it. It lives until PowerOff.
PDRIVER_OBJECT CreateDriver(std::u16string_view name);

// Makes the driver and calls its entry. `driver` is null unless the entry succeeded; an entry that fails must
// have deleted its devices. IRQL: PASSIVE_LEVEL.
[[nodiscard]] NTSTATUS LoadDriver(PDRIVER_INITIALIZE entry, std::u16string_view name, PDRIVER_OBJECT& driver);

// What IoGetDeviceProperty answers for a physical device object, for example u"Volume". Until one property is
// set, IoGetDeviceProperty fails with STATUS_INVALID_DEVICE_REQUEST; a property not set is not found.
void SetDeviceProperty(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property, std::u16string_view value);

// The device at the top of the stack of `device`, without a reference: for a caller that knows the stack lives
// at least as long as it uses the result, as a file system does that remembers the top when it mounts.
PDEVICE_OBJECT TopOfStack(PDEVICE_OBJECT device);

// Calls the driver's AddDevice routine for the physical device object; a driver without one is left out with
// STATUS_SUCCESS. IRQL: PASSIVE_LEVEL.
[[nodiscard]] NTSTATUS AddDeviceToStack(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo);

// Send a request to the top of the stack of `device` as the managers for Plug and Play and power do, wait, and
// return its final status (STATUS_NOT_SUPPORTED when nobody touched it). IRQL: PASSIVE_LEVEL. The stack's top
// is referenced meanwhile, so a remove request may delete it.
[[nodiscard]] NTSTATUS SendPnp(PDEVICE_OBJECT device, UCHAR minor);
[[nodiscard]] NTSTATUS SendPower(PDEVICE_OBJECT device, UCHAR minor, POWER_STATE_TYPE type, POWER_STATE state);

// A paging file, or what else `type` says, comes to the device (`inPath`) or goes from it.
[[nodiscard]] NTSTATUS SendUsage(PDEVICE_OBJECT device, DEVICE_USAGE_NOTIFICATION_TYPE type, bool inPath);

// Sends IRP_MJ_SHUTDOWN to every registered device, the last registered first. Each registration is dropped
// before its request is sent, so a handler may unregister and delete its device.
void NotifyShutdown();
// The same for those registered for the last chance, under its rule: what is pageable or needs files stops.
void NotifyLastChance();
// What some file systems send down their volume's stack as they end. IRQL: PASSIVE_LEVEL.
[[nodiscard]] NTSTATUS SendShutdown(PDEVICE_OBJECT device);

// Devices that exist, deleted ones that are still referenced included.
ULONG DeviceCount();

[[noreturn]] void StopAtDeadDevice(PDEVICE_OBJECT device, const char* caller);
// Stops, naming `caller`, unless the device exists: it was not deleted, or somebody still holds a reference.
inline void CheckDevice(PDEVICE_OBJECT device, const char* caller) {
    if (device == nullptr || device->Host != reinterpret_cast<HostDevice*>(device + 1) ||
        device->Host->Magic != kDeviceMagic)
        StopAtDeadDevice(device, caller);
}

}  // namespace host
