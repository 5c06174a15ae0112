// Disks and volumes whose sectors lie in memory. A volume has bytes of its own or lies on a disk, to the top of
// whose stack it passes its transfers on. What a device received is counted, and completions can be made to
// pend.
#pragma once
#include <atomic>
#include "platform/kernel.h"

// The extension of such a device.
struct RamDevice {
    PDEVICE_OBJECT Device;
    PUCHAR Sectors;       // null for a volume on a disk
    ULONGLONG Size;       // bytes
    PDEVICE_OBJECT Disk;  // the physical device of the disk under a volume
    PDEVICE_OBJECT Next;  // of a filter that passes everything on: the device below it
    LONGLONG Start;       // where on the disk
    // What arrived here, ever: of each major function, but for the request that tells the extents, and of each
    // minor function of Plug and Play.
    std::atomic<ULONG> Arrived[IRP_MJ_MAXIMUM_FUNCTION + 1];
    std::atomic<ULONG> ArrivedPnp[32];
    KEVENT Awake;  // cleared while the system sleeps: transfers wait for it
};

struct RamOptions {
    const WCHAR* Name;
    PUCHAR Sectors;
    ULONGLONG Size;
    USHORT SectorSize = 512;
    bool IsDisk = false;
    bool IsRemovable = false;
    PDEVICE_OBJECT Disk = nullptr;
    LONGLONG Start = 0;
};

// Null, with a failed check, when it could not be made. It lives until DeleteRamDevice or the end of the boot.
[[nodiscard]] PDEVICE_OBJECT MakeRamDevice(const RamOptions& options);
// A filter without a name of its own above the device, which passes everything on and is deleted with it.
// Whether it could be made.
[[nodiscard]] bool AddPassingFilter(PDEVICE_OBJECT device);
// Nothing else may be attached to it any more.
void DeleteRamDevice(PDEVICE_OBJECT device);
[[nodiscard]] inline RamDevice* RamOf(PDEVICE_OBJECT device) {
    return static_cast<RamDevice*>(device->DeviceExtension);
}
