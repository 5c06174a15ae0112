// What the driver refuses where it counts on sectors: device-control requests, storage requests and removals,
// and redirected writes for which there is no space.
#include <initializer_list>
#include "tests/second_kernel/common/work.h"
#include "tests/second_kernel/stories/list.h"

namespace {

#define PLAIN_VOLUME W("\\Device\\StoryPlain")
#define REMOVABLE_VOLUME W("\\Device\\StoryRemovable")
#define OTHER_DISK W("\\Device\\Harddisk8\\DR8")

const ComputerOptions kOptions = {.DataBytes = 20 * kMiB, .IsDataOnDisk = true};
constexpr LONGLONG kStorage = 9 * kMiB;
const WCHAR kText[] = W("[Global]\r\nProtection=1\r\nRVAccessMode=1\r\n[FV 1]\r\nID=")
    DATA_VOLUME W("\r\nProtectionMode=1\r\nBootMode=1\r\n");

constexpr NTSTATUS kPasses = STATUS_SUCCESS;
constexpr NTSTATUS kProtected = STATUS_MEDIA_WRITE_PROTECTED;

struct CodeCase {
    ULONG Code;
    NTSTATUS Guarded;  // where the driver counts on the sectors
    NTSTATUS Plain;    // on any other volume or disk, while protection is on
};
const CodeCase kCodes[] = {
    {IOCTL_DISK_IS_WRITABLE, kPasses, kPasses},
    {IOCTL_DISK_GET_DRIVE_LAYOUT, kPasses, kPasses},
    {IOCTL_DISK_GET_DRIVE_LAYOUT_EX, kPasses, kPasses},
    {IOCTL_DISK_SET_DRIVE_LAYOUT, kProtected, kProtected},
    {IOCTL_DISK_SET_DRIVE_LAYOUT_EX, kProtected, kProtected},
    {IOCTL_DISK_VERIFY, kProtected, kPasses},
    {IOCTL_DISK_FORMAT_TRACKS, kProtected, kPasses},
    {IOCTL_DISK_FORMAT_TRACKS_EX, kProtected, kPasses},
    {IOCTL_DISK_SET_PARTITION_INFO, kPasses, kPasses},
    {IOCTL_DISK_SET_PARTITION_INFO_EX, kProtected, kPasses},
    {IOCTL_DISK_GROW_PARTITION, kProtected, kPasses},
    {IOCTL_DISK_DELETE_DRIVE_LAYOUT, kProtected, kPasses},
    {FSCTL_MOVE_FILE, kProtected, kPasses},
    {FSCTL_EXTEND_VOLUME, kProtected, kPasses},
    {FSCTL_SHRINK_VOLUME, kProtected, kPasses},
    {IOCTL_MOUNTDEV_LINK_CREATED, kPasses, kPasses},
    {IOCTL_MOUNTDEV_LINK_DELETED, kProtected, kPasses},
    {IOCTL_VOLUME_PREPARE_FOR_SHRINK, kProtected, kPasses},
    {IOCTL_IDE_PASS_THROUGH, kPasses, kPasses},
};

// A request that ends at the filter has not reached the device, one that passes has.
void TryControl(PDEVICE_OBJECT device, const host::Control& control, NTSTATUS expected, ULONG which) {
    const ULONG before = RamOf(device)->Arrived[IRP_MJ_DEVICE_CONTROL];
    const host::Outcome reply = host::SendControl(host::TopOfStack(device), control);
    stage::Check(reply.status == expected, "the answer to a control code", static_cast<ULONG>(reply.status),
                 which);
    stage::CheckEqual(RamOf(device)->Arrived[IRP_MJ_DEVICE_CONTROL] - before, expected == kPasses ? 1 : 0,
                      "requests that reached the device");
}

enum class Place { Off, Plain, Guarded };

NTSTATUS Expected(const CodeCase& code, Place place) {
    if (place == Place::Off) return kPasses;
    return place == Place::Guarded ? code.Guarded : code.Plain;
}

void TryCodes(PDEVICE_OBJECT device, Place place) {
    for (const CodeCase& code : kCodes) TryControl(device, {code.Code}, Expected(code, place), code.Code);
}

void TryPassThrough(PDEVICE_OBJECT device, Place place) {
    const bool guarded = place == Place::Guarded;
    for (const ULONG code : {ULONG{IOCTL_SCSI_PASS_THROUGH}, ULONG{IOCTL_SCSI_PASS_THROUGH_DIRECT}}) {
        SCSI_PASS_THROUGH command{};
        const host::Control whole = {code, &command, sizeof(command)};
        command.Cdb[0] = 0x28;
        TryControl(device, whole, kPasses, 0x28);
        for (const UCHAR operation :
             {0x04, 0x0A, 0x10, 0x19, 0x2A, 0x2E, 0x3B, 0x5B, 0x8A, 0x8E, 0xA1, 0xAA, 0xAE}) {
            command.Cdb[0] = operation;
            TryControl(device, whole, guarded ? STATUS_ACCESS_DENIED : kPasses, operation);
        }
        TryControl(device, {code, &command, sizeof(command) - 1}, guarded ? STATUS_INVALID_PARAMETER : kPasses,
                   code);
    }
}

void TryAll(PDEVICE_OBJECT device, Place place) {
    TryCodes(device, place);
    TryPassThrough(device, place);
}

PDEVICE_OBJECT AddOther(Computer* computer, const RamOptions& options) {
    PDEVICE_OBJECT device = MakeRamDevice(options);
    return device && NT_SUCCESS(AddAndStart(computer->Driver, device)) ? device : nullptr;
}

void TryOthers(Computer* computer) {
    stage::Step("control codes of another disk and of a protected removable volume");
    PDEVICE_OBJECT disk = AddOther(
        computer, {.Name = OTHER_DISK, .Sectors = stage::Medium(6, kMiB), .Size = kMiB, .IsDisk = true});
    if (disk) TryCodes(disk, Place::Plain);
    PDEVICE_OBJECT removable = AddOther(
        computer,
        {.Name = REMOVABLE_VOLUME, .Sectors = stage::Medium(5, kMiB), .Size = kMiB, .IsRemovable = true});
    if (!removable) return;
    TryControl(removable, {IOCTL_DISK_IS_WRITABLE}, kProtected, IOCTL_DISK_IS_WRITABLE);
    TryControl(removable, {FSCTL_MOVE_FILE}, kProtected, FSCTL_MOVE_FILE);
}

// ---- the boots -------------------------------------------------------------------------------------------

void Off() {
    Computer* computer = BootComputer(kOptions);
    if (!computer) return;
    Install(computer, kText, kStorage);
    stage::Step("while protection is off nothing is refused");
    for (PDEVICE_OBJECT device : {computer->System, computer->Data, computer->Disk}) TryAll(device, Place::Off);
    EndComputer(computer);
}

void On() {
    Computer* computer = BootComputer(kOptions);
    PDEVICE_OBJECT plain =
        computer ? AddOther(computer, {.Name = PLAIN_VOLUME, .Sectors = stage::Medium(6, kMiB), .Size = kMiB})
                 : nullptr;
    if (!plain) return;
    WakeComputer(computer);
    CheckProtected(computer, kStorage);
    stage::Step("control codes of the protected volume");
    TryAll(computer->Data, Place::Guarded);
    stage::Step("control codes of the volume that holds the configuration");
    TryAll(computer->System, Place::Guarded);
    stage::Step("control codes of a plain volume and of the disk");
    TryAll(plain, Place::Plain);
    TryCodes(computer->Disk, Place::Plain);
    TryOthers(computer);
    EndComputer(computer);
}

}  // namespace

const Story kRefusalsStory = {"refusals", "what is refused on protected volumes and their disks", {Off, On}};
