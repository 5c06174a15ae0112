#include "driver/device_control.h"
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "control/io.h"
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

// SCSI commands that write, erase or format, by their operation code.
constexpr UCHAR kRefusedCommands[] = {
    0x04,  // FORMAT UNIT
    0x0A,  // WRITE(6)
    0x10,  // WRITE FILEMARKS(6)
    0x19,  // ERASE(6)
    0x2A,  // WRITE(10)
    0x2E,  // WRITE AND VERIFY(10)
    0x3B,  // WRITE BUFFER
    0x5B,  // CLOSE TRACK/SESSION
    0x8A,  // WRITE(16)
    0x8E,  // WRITE AND VERIFY(16)
    0xA1,  // BLANK, and ATA PASS-THROUGH(12)
    0xAA,  // WRITE(12)
    0xAE,  // WRITE AND VERIFY(12)
};

// The two forms of the pass-through request begin alike, the command included.
static_assert(sizeof(SCSI_PASS_THROUGH) == sizeof(SCSI_PASS_THROUGH_DIRECT) &&
              FIELD_OFFSET(SCSI_PASS_THROUGH, Cdb) == FIELD_OFFSET(SCSI_PASS_THROUGH_DIRECT, Cdb));

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

bool IsRefusedCommand(UCHAR operation) {
    for (UCHAR refused : kRefusedCommands) {
        if (refused == operation) return true;
    }
    return false;
}

// Only the request's own structure is looked at, never its data.
NTSTATUS CheckPassThrough(PIRP request, ULONG inputLength, PCSTR passed, PCSTR blocked) {
    const auto* command = static_cast<const SCSI_PASS_THROUGH*>(request->AssociatedIrp.SystemBuffer);
    if (inputLength < sizeof(SCSI_PASS_THROUGH) || !command) return STATUS_INVALID_PARAMETER;
    const UCHAR operation = command->Cdb[0];
    const bool refused = IsRefusedCommand(operation);
    DbgPrint(refused ? blocked : passed, operation);
    return refused ? STATUS_ACCESS_DENIED : kPass;
}

NTSTATUS CheckGuardedVolume(PIRP request, ULONG code, ULONG inputLength) {
    switch (code) {
        case IOCTL_SCSI_PASS_THROUGH:
            return CheckPassThrough(request, inputLength, "Kvr!KvrDeviceControl: IOCTL_SCSI_PASS_THROUGH, %d\n",
                                    "Kvr!KvrDeviceControl: IOCTL_SCSI_PASS_THROUGH BLOCKED, %d\n");
        case IOCTL_SCSI_PASS_THROUGH_DIRECT:
            return CheckPassThrough(request, inputLength,
                                    "Kvr!KvrDeviceControl: IOCTL_SCSI_PASS_THROUGH_DIRECT, %d\n",
                                    "Kvr!KvrDeviceControl: IOCTL_SCSI_PASS_THROUGH_DIRECT BLOCKED, %d\n");
        default:
            return ApplyRule(FindRule(kGuardedVolume, code));
    }
}

// The driver reads and writes sectors of this volume by their position: it must not change.
bool IsGuarded(PVOLUME_EXTENSION volume) {
    return volume->IsProtected || volume->PreloadConfigLocation[0] != 0 || volume->MapLocation != nullptr;
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
    if (refusal != kPass || !listed || !IsGuarded(volume)) return refusal;
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
