#include "driver/device_control.h"
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "control/io.h"
#include "driver/pass_through.h"
#include "driver/record/hardening.h"
#include "driver/record/requests.h"
#include "driver/record/volume_list.h"

namespace {

// One control code: what is reported, and whether the request ends here. STATUS_SUCCESS lets it go on.
struct CONTROL_RULE {
    ULONG Code;
    NTSTATUS Refusal;
    PCSTR Message;   // a format for the code; null for nothing
    PCSTR Blocking;  // a second one, when the request is refused
};

constexpr NTSTATUS kPass = STATUS_SUCCESS;
constexpr NTSTATUS kProtected = STATUS_MEDIA_WRITE_PROTECTED;

// Codes looked at on every filtered volume and disk: the layout is fixed while protection is on at all.
constexpr CONTROL_RULE kEveryDevice[] = {
    {IOCTL_DISK_GET_DRIVE_LAYOUT, kPass,
     "Kvr!KvrDeviceControl: IOCTL GET_DRIVE_LAYOUT IoControlCode = 0x%08x\n", nullptr},
    {IOCTL_DISK_GET_DRIVE_LAYOUT_EX, kPass,
     "Kvr!KvrDeviceControl: IOCTL GET_DRIVE_LAYOUT IoControlCode = 0x%08x\n", nullptr},
    {IOCTL_DISK_SET_DRIVE_LAYOUT, kProtected,
     "Kvr!KvrDeviceControl: IOCTL SET_DRIVE_LAYOUT IoControlCode = 0x%08x\n",
     "Kvr!KvrDeviceControl: IOCTL SET_DRIVE_LAYOUT IoControlCode = 0x%08x BLOCKING!\n"},
    {IOCTL_DISK_SET_DRIVE_LAYOUT_EX, kProtected,
     "Kvr!KvrDeviceControl: IOCTL SET_DRIVE_LAYOUT IoControlCode = 0x%08x\n",
     "Kvr!KvrDeviceControl: IOCTL SET_DRIVE_LAYOUT IoControlCode = 0x%08x BLOCKING!\n"},
    {IOCTL_MOUNTDEV_LINK_DELETED, kPass, "Kvr!KvrDeviceControl: IOCTL LINK_DELETED IoControlCode = 0x%08x\n",
     nullptr},
};

// A protected removable medium says so itself; a fixed one takes writes, into its swap space.
constexpr CONTROL_RULE kWritableQuery = {
    IOCTL_DISK_IS_WRITABLE, kPass, "Kvr!KvrDeviceControl: IOCTL IS_WRITABLE IoControlCode = 0x%08x\n", nullptr};
constexpr CONTROL_RULE kWritableRefusal = {
    IOCTL_DISK_IS_WRITABLE, kProtected, kWritableQuery.Message,
    "Kvr!KvrDeviceControl: IOCTL IS_WRITABLE IoControlCode = 0x%08x BLOCKING!\n"};

constexpr PCSTR kHardenedMessage = "Kvr!KvrDeviceControl: BLOCKING IoControlCode = 0x%08x\n";

// Codes looked at only where the driver counts on its sectors: on protected volumes and on those that hold the
// configuration or a saved map. "skipping" says that the request is not carried out.
constexpr CONTROL_RULE kGuardedVolume[] = {
    {IOCTL_IDE_PASS_THROUGH, kPass, "Kvr!KvrDeviceControl: IOCTL_IDE_PASS_THROUGH\n", nullptr},
    {IOCTL_DISK_VERIFY, kProtected, "Kvr!KvrDeviceControl: DISK_VERIFY IoControlCode = 0x%08x\n", nullptr},
    {IOCTL_DISK_FORMAT_TRACKS, kProtected, "Kvr!KvrDeviceControl: FORMAT_TRACKS(_EX) IoControlCode = 0x%08x\n",
     nullptr},
    {IOCTL_DISK_FORMAT_TRACKS_EX, kProtected,
     "Kvr!KvrDeviceControl: FORMAT_TRACKS(_EX) IoControlCode = 0x%08x\n", nullptr},
    {IOCTL_DISK_SET_PARTITION_INFO_EX, kProtected,
     "Kvr!KvrDeviceControl: SET_PARTITION_INFO_EX IoControlCode = 0x%08x\n", nullptr},
    {IOCTL_DISK_GROW_PARTITION, kProtected,
     "Kvr!KvrDeviceControl: IOCTL_DISK_GROW_PARTITION, skipping IoControlCode = 0x%08x\n", nullptr},
    {IOCTL_DISK_DELETE_DRIVE_LAYOUT, kProtected,
     "Kvr!KvrDeviceControl: IOCTL_DISK_DELETE_DRIVE_LAYOUT, skipping IoControlCode = 0x%08x\n", nullptr},
    {FSCTL_MOVE_FILE, kProtected, "Kvr!KvrDeviceControl: FSCTL_MOVE_FILE, skipping IoControlCode = 0x%08x\n",
     nullptr},
    {FSCTL_EXTEND_VOLUME, kProtected,
     "Kvr!KvrDeviceControl: FSCTL_EXTEND_VOLUME, skipping IoControlCode = 0x%08x\n", nullptr},
    {FSCTL_SHRINK_VOLUME, kProtected,
     "Kvr!KvrDeviceControl: FSCTL_SHRINK_VOLUME, skipping IoControlCode = 0x%08x\n", nullptr},
    {IOCTL_MOUNTDEV_LINK_DELETED, kProtected,
     "Kvr!KvrDeviceControl: IOCTL LINK_DELETED IoControlCode = 0x%08x\n", nullptr},
    {IOCTL_VOLUME_PREPARE_FOR_SHRINK, kProtected,
     "Kvr!KvrDeviceControl: IOCTL_VOLUME_PREPARE_FOR_SHRINK, skipping IoControlCode = 0x%08x\n", nullptr},
};

// Under gHardening these as well, and also on a disk below a protected volume: what makes a disk forget or copy
// sectors by itself, commands that cannot be looked into, and what makes another layout. A file system that is
// refused a deallocation or an offloaded copy goes without.
constexpr CONTROL_RULE kHardened[] = {
    {IOCTL_STORAGE_MANAGE_DATA_SET_ATTRIBUTES, STATUS_NOT_SUPPORTED, nullptr, nullptr},
    {IOCTL_STORAGE_REINITIALIZE_MEDIA, STATUS_NOT_SUPPORTED, kHardenedMessage, nullptr},
    {IOCTL_STORAGE_REMOVE_ELEMENT_AND_TRUNCATE, STATUS_NOT_SUPPORTED, kHardenedMessage, nullptr},
    {IOCTL_SCSI_PASS_THROUGH_EX, STATUS_ACCESS_DENIED, kHardenedMessage, nullptr},
    {IOCTL_SCSI_PASS_THROUGH_DIRECT_EX, STATUS_ACCESS_DENIED, kHardenedMessage, nullptr},
    {IOCTL_STORAGE_PROTOCOL_COMMAND, STATUS_ACCESS_DENIED, kHardenedMessage, nullptr},
    {IOCTL_IDE_PASS_THROUGH, STATUS_ACCESS_DENIED, kHardenedMessage, nullptr},
    {IOCTL_DISK_CREATE_DISK, kProtected, kHardenedMessage, nullptr},
    {IOCTL_DISK_SET_PARTITION_INFO, kProtected, kHardenedMessage, nullptr},
    {IOCTL_DISK_REASSIGN_BLOCKS, kProtected, kHardenedMessage, nullptr},
    {IOCTL_DISK_REASSIGN_BLOCKS_EX, kProtected, kHardenedMessage, nullptr},
};

template <SIZE_T Count>
const CONTROL_RULE* FindRule(const CONTROL_RULE (&rules)[Count], ULONG code) {
    for (const CONTROL_RULE& rule : rules) {
        if (rule.Code == code) return &rule;
    }
    return nullptr;
}

// Reports as the rule says and returns its refusal.
NTSTATUS ApplyRule(const CONTROL_RULE* rule) {
    if (!rule) return kPass;
    if (rule->Message) DbgPrint(rule->Message, rule->Code);
    if (rule->Blocking) DbgPrint(rule->Blocking, rule->Code);
    return rule->Refusal;
}

NTSTATUS CheckEveryDevice(PVOLUME_EXTENSION volume, ULONG code) {
    if (code != IOCTL_DISK_IS_WRITABLE) return ApplyRule(FindRule(kEveryDevice, code));
    const bool readOnly = volume->IsProtected && volume->MediaType != FixedMedia;
    return ApplyRule(readOnly ? &kWritableRefusal : &kWritableQuery);
}

NTSTATUS CheckGuardedVolume(PIRP request, ULONG code, ULONG inputLength) {
    if (gHardening) {
        if (const CONTROL_RULE* rule = FindRule(kHardened, code)) return ApplyRule(rule);
    }
    if (IsPassThrough(code)) return CheckPassThrough(request, code, inputLength);
    return ApplyRule(FindRule(kGuardedVolume, code));
}

// Would the request be looked at on a guarded volume? Spares disks the walk over all volumes for every other.
bool IsLookedAt(ULONG code) {
    return FindRule(kHardened, code) || FindRule(kGuardedVolume, code) || IsPassThrough(code);
}

// The driver reads and writes sectors of this volume by their position: it must not change.
bool IsGuarded(PVOLUME_EXTENSION volume) {
    return volume->IsProtected || volume->PreloadConfigLocation[0] != 0 || volume->MapLocation != nullptr ||
           AreWritesRefused(volume);
}

// Under gHardening a disk is guarded for the sake of the protected volumes on it.
bool IsGuardedDisk(PVOLUME_EXTENSION disk, ULONG code) {
    return gHardening && disk->IsDisk && IsLookedAt(code) && HasProtectedVolume(disk->FilterDevice);
}

void TraceControl(PVOLUME_EXTENSION volume, ULONG code) {
    const ULONG device = TraceAddress(volume->FilterDevice);
    if (volume->IsProtected) {
        DbgPrint("Kvr!KvrDeviceControl: Device=0x%08x, IOCTL=0x%08x, Volume=%wZ\n", device, code,
                 &volume->VolumeName);
    }
    if (volume->IsDisk) {
        DbgPrint("Kvr!KvrDeviceControl: DiskDevice=0x%08x, IOCTL=0x%08x, Volume=%wZ\n", device, code,
                 &volume->VolumeName);
    }
}

NTSTATUS AnswerControlDevice(PDEVICE_OBJECT device, PIRP request, PIO_STACK_LOCATION location) {
    PVOID buffer = request->AssociatedIrp.SystemBuffer;
    const auto& parameters = location->Parameters.DeviceIoControl;
    NTSTATUS status =
        ControlDeviceIoControl(device, buffer, parameters.InputBufferLength, buffer,
                               parameters.OutputBufferLength, parameters.IoControlCode, &request->IoStatus);
    return CompleteRequest(request, status, request->IoStatus.Information);
}

// kPass, or the status with which the request is refused.
NTSTATUS CheckFilteredRequest(PVOLUME_EXTENSION volume, PIRP request, PIO_STACK_LOCATION location) {
    const ULONG code = location->Parameters.DeviceIoControl.IoControlCode;
    const bool listed = IsVolumeInList(volume);
    if (listed && !volume->IsProtected) UpdateVolumeProtection(volume);
    if (listed && !volume->SuppressControlTrace) TraceControl(volume, code);
    NTSTATUS refusal = CheckEveryDevice(volume, code);
    if (refusal != kPass || !listed) return refusal;
    if (!IsGuarded(volume) && !IsGuardedDisk(volume, code)) return kPass;
    return CheckGuardedVolume(request, code, location->Parameters.DeviceIoControl.InputBufferLength);
}

}  // namespace

NTSTATUS KvrDeviceControl(PDEVICE_OBJECT device, PIRP request) {
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(request);
    if (device == gControlDevice) return AnswerControlDevice(device, request, location);
    PVOLUME_EXTENSION volume = VolumeOf(device);
    RecordHold hold(volume, request);
    if (hold.Failed()) return CompleteRequest(request, STATUS_DELETE_PENDING);
    if (!gTesselEnabled) return PassIrpDown(device, request);
    NTSTATUS refusal = CheckFilteredRequest(volume, request, location);
    return refusal == kPass ? PassIrpDown(device, request) : CompleteRequest(request, refusal);
}
