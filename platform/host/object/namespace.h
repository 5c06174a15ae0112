// The object namespace: named devices under \Device, symbolic links under \?? (\DosDevices is the same
// directory), \SystemRoot, the named events of \KernelObjects, and the file systems mounted on devices. Names
// are compared without regard to case. One lock of its own guards it.
#pragma once
#include <string>
#include <string_view>
#include "platform/host/object/file_provider.h"

namespace host {

// Makes \SystemRoot lead to `target`, for example \Device\HarddiskVolume1\Windows. Empty removes it.
void SetSystemRoot(std::u16string_view target);

// While one lives, a file system is being mounted on the device, and opens of paths on it wait for the outcome,
// as an open that meets a volume's mount does on the platform. The mounting thread itself must not open any.
class MountInProgress {
public:
    explicit MountInProgress(PDEVICE_OBJECT device);
    ~MountInProgress();
    MountInProgress(const MountInProgress&) = delete;
    MountInProgress& operator=(const MountInProgress&) = delete;

private:
    PDEVICE_OBJECT device_;
};

// Mounts a file system on a named device; it must outlive the mount. One at a time per device.
void MountProvider(PDEVICE_OBJECT device, FileProvider* provider);
// Later opens no longer find it. Files that are open keep their OpenFile objects until they are closed.
void UnmountProvider(PDEVICE_OBJECT device);

// Where a path leads once every link in it was followed.
struct ResolvedPath {
    PDEVICE_OBJECT device = nullptr;   // unreferenced
    FileProvider* provider = nullptr;  // null while nothing is mounted on the device
    std::u16string rest;               // what follows the device's name: empty, or begins with a backslash
};
// Waits for a mount in progress on that device. IRQL: PASSIVE_LEVEL.
// STATUS_OBJECT_PATH_NOT_FOUND or STATUS_OBJECT_NAME_NOT_FOUND when it leads nowhere,
// STATUS_OBJECT_NAME_INVALID when it is not absolute or its links form a ring.
[[nodiscard]] NTSTATUS ResolvePath(std::u16string_view path, ResolvedPath& resolved);

// Named devices, for IoCreateDevice and IoDeleteDevice. STATUS_OBJECT_NAME_COLLISION when the name is taken,
// STATUS_OBJECT_PATH_NOT_FOUND when its directory does not exist.
[[nodiscard]] NTSTATUS AddDeviceName(std::u16string_view name, PDEVICE_OBJECT device);
void RemoveDeviceName(PDEVICE_OBJECT device);

// The named event, made on first use; signal it with KeSetEvent. Lives until the next reset.
PKEVENT NamedEvent(std::u16string_view name);

// Empties the namespace but for what every boot has; for PowerOn and PowerOff.
void ResetNamespace();

inline std::u16string_view View(PCUNICODE_STRING string) {
    return {string->Buffer, string->Length / sizeof(WCHAR)};
}

}  // namespace host
