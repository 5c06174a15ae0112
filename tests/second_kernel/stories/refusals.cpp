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
constexpr NTSTATUS kDenied = STATUS_ACCESS_DENIED;
constexpr NTSTATUS kUnknown = STATUS_NOT_SUPPORTED;

struct CodeCase {
    ULONG Code;
    NTSTATUS Guarded;             // where the driver counts on the sectors
    NTSTATUS Plain;               // on any other volume or disk, while protection is on
    NTSTATUS Hardened = Guarded;  // by the stricter rules: there, and on disks below a protected volume
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
    {IOCTL_DISK_SET_PARTITION_INFO, kPasses, kPasses, kProtected},
    {IOCTL_DISK_SET_PARTITION_INFO_EX, kProtected, kPasses},
    {IOCTL_DISK_GROW_PARTITION, kProtected, kPasses},
    {IOCTL_DISK_DELETE_DRIVE_LAYOUT, kProtected, kPasses},
    {FSCTL_MOVE_FILE, kProtected, kPasses},
    {FSCTL_EXTEND_VOLUME, kProtected, kPasses},
    {FSCTL_SHRINK_VOLUME, kProtected, kPasses},
    {IOCTL_MOUNTDEV_LINK_CREATED, kPasses, kPasses},
    {IOCTL_MOUNTDEV_LINK_DELETED, kProtected, kPasses},
    {IOCTL_VOLUME_PREPARE_FOR_SHRINK, kProtected, kPasses},
    {IOCTL_IDE_PASS_THROUGH, kPasses, kPasses, kDenied},
    {IOCTL_STORAGE_MANAGE_DATA_SET_ATTRIBUTES, kPasses, kPasses, kUnknown},
    {IOCTL_STORAGE_REINITIALIZE_MEDIA, kPasses, kPasses, kUnknown},
    {IOCTL_STORAGE_REMOVE_ELEMENT_AND_TRUNCATE, kPasses, kPasses, kUnknown},
    {IOCTL_SCSI_PASS_THROUGH_EX, kPasses, kPasses, kDenied},
    {IOCTL_SCSI_PASS_THROUGH_DIRECT_EX, kPasses, kPasses, kDenied},
    {IOCTL_STORAGE_PROTOCOL_COMMAND, kPasses, kPasses, kDenied},
    {IOCTL_DISK_CREATE_DISK, kPasses, kPasses, kProtected},
    {IOCTL_DISK_REASSIGN_BLOCKS, kPasses, kPasses, kProtected},
    {IOCTL_DISK_REASSIGN_BLOCKS_EX, kPasses, kPasses, kProtected},
    {IOCTL_DISK_GET_LENGTH_INFO, kPasses, kPasses},
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

enum class Place { Off, Plain, Guarded, Hardened };

NTSTATUS Expected(const CodeCase& code, Place place) {
    if (place == Place::Off) return kPasses;
    if (place == Place::Hardened) return code.Hardened;
    return place == Place::Guarded ? code.Guarded : code.Plain;
}

void TryCodes(PDEVICE_OBJECT device, Place place) {
    for (const CodeCase& code : kCodes) TryControl(device, {code.Code}, Expected(code, place), code.Code);
}

struct CommandCase {
    UCHAR Command;
    bool Guarded, Hardened;  // refused
};
const CommandCase kScsiCommands[] = {
    {0x28, false, false}, {0x04, true, true},  {0x0A, true, true},  {0x10, true, true},   {0x19, true, true},
    {0x2A, true, true},   {0x2E, true, true},  {0x3B, true, true},  {0x5B, true, true},   {0x8A, true, true},
    {0x8E, true, true},   {0xA1, true, true},  {0xAA, true, true},  {0xAE, true, true},   {0x41, false, true},
    {0x42, false, true},  {0x48, false, true}, {0x7F, false, true}, {0x83, false, true},  {0x85, false, true},
    {0x93, false, true},  {0x94, false, true}, {0x9F, false, true}, {0x12, false, false},
};
const CommandCase kAtaCommands[] = {{0xEC, false, false}, {0xB0, false, false}, {0x06, false, true},
                                    {0x35, false, true},  {0xB4, false, true},  {0xC0, false, true},
                                    {0x45, false, true},  {0x99, false, true},  {0xCA, false, true}};

NTSTATUS Verdict(const CommandCase& c, Place place) {
    const bool refused = place == Place::Guarded ? c.Guarded : place == Place::Hardened && c.Hardened;
    return refused ? kDenied : kPasses;
}

void TryScsi(PDEVICE_OBJECT device, ULONG code, Place place) {
    const bool guarded = place == Place::Guarded || place == Place::Hardened;
    const bool hardened = place == Place::Hardened;
    SCSI_PASS_THROUGH command{};
    for (const CommandCase& c : kScsiCommands) {
        command.Cdb[0] = c.Command;
        TryControl(device, {code, &command, sizeof(command)}, Verdict(c, place), c.Command);
    }
    const NTSTATUS cut = guarded ? STATUS_INVALID_PARAMETER : kPasses;
    TryControl(device, {code, &command, sizeof(command) - 1}, cut, code);
    // A 32-bit program's request, and what it looks like to who expects the other layout.
    UCHAR bytes[sizeof(SCSI_PASS_THROUGH)] = {};
    host::Control from32 = {.code = code, .input = bytes, .inputLength = sizeof(bytes), .from32Bit = true};
    bytes[28] = 0x2A;
    bytes[36] = 0x28;
    TryControl(device, from32, hardened ? kDenied : kPasses, bytes[28]);
    bytes[28] = 0x28;
    from32.inputLength = sizeof(SCSI_PASS_THROUGH32);
    TryControl(device, from32, guarded && !hardened ? STATUS_INVALID_PARAMETER : kPasses, bytes[28]);
    --from32.inputLength;
    TryControl(device, from32, cut, code);
}

void TryAta(PDEVICE_OBJECT device, ULONG code, Place place) {
    const bool hardened = place == Place::Hardened;
    ATA_PASS_THROUGH_EX own{};
    ATA_PASS_THROUGH_EX32 of32{};
    for (const CommandCase& c : kAtaCommands) {
        own.CurrentTaskFile[6] = of32.CurrentTaskFile[6] = c.Command;
        own.AtaFlags = of32.AtaFlags = 0;
        TryControl(device, {code, &own, sizeof(own)}, Verdict(c, place), c.Command);
        TryControl(device, {.code = code, .input = &of32, .inputLength = sizeof(of32), .from32Bit = true},
                   Verdict(c, place), c.Command);
        own.AtaFlags = ATA_FLAGS_DATA_OUT;
        TryControl(device, {code, &own, sizeof(own)}, hardened ? kDenied : kPasses, c.Command);
    }
    TryControl(device, {code, &own, sizeof(own) - 1}, hardened ? STATUS_INVALID_PARAMETER : kPasses, code);
}

void TryPassThrough(PDEVICE_OBJECT device, Place place) {
    for (const ULONG code : {ULONG{IOCTL_SCSI_PASS_THROUGH}, ULONG{IOCTL_SCSI_PASS_THROUGH_DIRECT}})
        TryScsi(device, code, place);
    for (const ULONG code : {ULONG{IOCTL_ATA_PASS_THROUGH}, ULONG{IOCTL_ATA_PASS_THROUGH_DIRECT}})
        TryAta(device, code, place);
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

void Off(Computer* computer) {
    Install(computer, kText, kStorage);
    stage::Step("while protection is off nothing is refused");
    for (PDEVICE_OBJECT device : {computer->System, computer->Data, computer->Disk}) TryAll(device, Place::Off);
}

void TryEverywhere(Place guarded, Place disk) {
    Computer* computer = BootComputer(kOptions);
    PDEVICE_OBJECT plain =
        computer ? AddOther(computer, {.Name = PLAIN_VOLUME, .Sectors = stage::Medium(6, kMiB), .Size = kMiB})
                 : nullptr;
    if (!plain) return;
    WakeComputer(computer);
    CheckProtected(computer, kStorage);
    stage::Step("control codes of the protected volume");
    TryAll(computer->Data, guarded);
    stage::Step("control codes of the volume that holds the configuration");
    TryAll(computer->System, guarded);
    stage::Step("control codes of the disk below the protected volume");
    TryAll(computer->Disk, disk);
    stage::Step("control codes of a plain volume");
    TryAll(plain, Place::Plain);
    TryOthers(computer);
    EndComputer(computer);
}

void On() {
    TryEverywhere(Place::Guarded, Place::Plain);
    stage::SetDriverSwitch(u"Hardening", 1);
}

void Hardened() {
    TryEverywhere(Place::Hardened, Place::Hardened);
}

}  // namespace

const Story kRefusalsStory = {
    "refusals", "what is refused on protected volumes and their disks", {InBoot<kOptions, Off>, On, Hardened}};
