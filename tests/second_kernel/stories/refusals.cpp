// What the driver refuses where it counts on sectors: device-control requests, writes to a disk's first sector,
// to removable volumes and through volume handles, and redirected writes for which there is no space.
#include <initializer_list>
#include "tests/second_kernel/common/work.h"
#include "tests/second_kernel/stories/list.h"

namespace {

#define PLAIN_VOLUME W("\\Device\\StoryPlain")
#define REMOVABLE_VOLUME W("\\Device\\StoryRemovable")
#define OTHER_DISK W("\\Device\\Harddisk8\\DR8")

const ComputerOptions kOptions = {.DataBytes = 20 * kMiB, .IsDataOnDisk = true};
constexpr LONGLONG kStorage = 9 * kMiB;  // 1 MiB of it may be used, the rest is kept
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
void TryControl(PDEVICE_OBJECT device, const Control& control, NTSTATUS expected, ULONG which) {
    const ULONG before = RamOf(device)->Controls;
    const Reply reply = SendControl(stage::TopOfStack(device), control);
    stage::Check(reply.Status == expected, "the answer to a control code", static_cast<ULONG>(reply.Status),
                 which);
    stage::CheckEqual(RamOf(device)->Controls - before, expected == kPasses ? 1 : 0,
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
        const Control whole = {code, &command, sizeof(command)};
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

// ---- writes ----------------------------------------------------------------------------------------------

// Writes one sector and tells whether the device got it.
void TryWrite(PDEVICE_OBJECT device, LONGLONG offset, PFILE_OBJECT file, NTSTATUS expected, const char* what) {
    const ULONG length = device->SectorSize;
    const Bytes data(length);
    const Bytes before(length);
    if (!data || !before) return;
    PUCHAR sectors = RamOf(device)->Sectors ? RamOf(device)->Sectors + offset : nullptr;
    if (sectors) RtlCopyMemory(before.Get(), sectors, length);
    FillPattern(data.Get(), length, static_cast<ULONGLONG>(offset), 77);
    const ULONG writes = RamOf(device)->Writes;
    stage::CheckStatus(WriteAt(stage::TopOfStack(device), offset, data.Get(), length, file), expected, what);
    const bool passes = expected == kPasses;
    stage::CheckEqual(RamOf(device)->Writes - writes, passes ? 1 : 0, "writes that reached the device");
    if (!sectors) return;
    stage::Check(IsSame(sectors, passes ? data.Get() : before.Get(), length), "what the device holds");
    RtlCopyMemory(sectors, before.Get(), length);
}

void TryDisks(Computer* computer) {
    stage::Step("the first sector of the disk with the protected volume");
    TryWrite(computer->Disk, 0, nullptr, kProtected, "a write to the first sector");
    TryWrite(computer->Disk, 512, nullptr, kPasses, "a write to the second sector");
    stage::Step("the first sector of another disk");
    PDEVICE_OBJECT other =
        MakeRamDevice({.Name = OTHER_DISK, .Sectors = stage::Medium(4, kMiB), .Size = kMiB, .IsDisk = true});
    if (!other || !NT_SUCCESS(AddAndStart(computer->Driver, other))) return;
    TryWrite(other, 0, nullptr, kPasses, "a write to its first sector");
    TryCodes(other, Place::Plain);
}

// A file on a removable volume, as one file system or another would send its writes.
struct MountedFile {
    DRIVER_OBJECT driver;
    DEVICE_OBJECT device;
    VPB vpb;
    FILE_OBJECT file;
};

void InitializeMounted(MountedFile* mounted, PDEVICE_OBJECT volume, const WCHAR* driver) {
    RtlZeroMemory(static_cast<PVOID>(mounted), sizeof(*mounted));
    RtlInitUnicodeString(&mounted->driver.DriverName, driver);
    mounted->device.DriverObject = &mounted->driver;
    mounted->vpb.DeviceObject = &mounted->device;
    InitializeFile(&mounted->file, volume, W("\\file"));
    mounted->file.Vpb = &mounted->vpb;
}

void TryRemovable(Computer* computer) {
    stage::Step("a protected removable volume");
    PDEVICE_OBJECT device = MakeRamDevice(
        {.Name = REMOVABLE_VOLUME, .Sectors = stage::Medium(5, kMiB), .Size = kMiB, .IsRemovable = true});
    const Bytes memory(sizeof(MountedFile));
    if (!device || !memory || !NT_SUCCESS(AddAndStart(computer->Driver, device))) return;
    auto* mounted = reinterpret_cast<MountedFile*>(memory.Get());
    TryWrite(device, 0, nullptr, kProtected, "a write without a file");
    InitializeMounted(mounted, device, W("\\FileSystem\\Fastfat"));
    TryWrite(device, 0, &mounted->file, kProtected, "a write of a file system");
    InitializeMounted(mounted, device, W("\\FileSystem\\Ntfs"));
    TryWrite(device, 0, &mounted->file, STATUS_NOT_SUPPORTED,
             "a write of the file system that wants another answer");
    TryControl(device, {IOCTL_DISK_IS_WRITABLE}, kProtected, IOCTL_DISK_IS_WRITABLE);
    TryControl(device, {FSCTL_MOVE_FILE}, kProtected, FSCTL_MOVE_FILE);
}

void TryVolumeHandles(Computer* computer, PDEVICE_OBJECT plain) {
    stage::Step("writes through volume handles");
    FILE_OBJECT file;
    for (PDEVICE_OBJECT device : {computer->Data, computer->System, plain}) {
        InitializeFile(&file, device, W(""));
        file.Flags |= FO_VOLUME_OPEN;
        TryWrite(device, 512, &file, device == plain ? kPasses : kProtected,
                 "a write through a volume's handle");
    }
}

// Files whose sectors others reach without the file system, whatever the case of their names.
void PassSystemFiles(Computer* computer) {
    stage::Step("files that are never redirected");
    constexpr LONGLONG place = kRegion - 64 * kKiB;
    const WCHAR* names[] = {W("\\PageFile.sys"), W("\\hiberfil.sys"), W("\\hibernate.sys"),
                            W("\\Windows\\bootstat.dat"), W("\\Boot\\BCD")};
    const Bytes data(512);
    if (!data) return;
    for (const WCHAR* name : names) {
        FILE_OBJECT file;
        InitializeFile(&file, computer->Data, name);
        FillPattern(data.Get(), 512, place, 88);
        stage::CheckStatus(WriteAt(TopOfData(computer), place, data.Get(), 512, &file), STATUS_SUCCESS,
                           "its write");
        stage::Check(IsSame(computer->DataSectors + place, data.Get(), 512), "the write is on the volume");
        FillPattern(computer->DataSectors + place, 512, place, kOwnSeed);
    }
}

// ---- space -----------------------------------------------------------------------------------------------

void TryNamed(Computer* computer, const WCHAR* name, NTSTATUS expected) {
    const Bytes data(4096);
    if (!data) return;
    FILE_OBJECT file;
    InitializeFile(&file, computer->Data, name);
    FillPattern(data.Get(), 4096, 0, kOwnSeed);  // what is there already, so that the model stays as it is
    stage::CheckStatus(WriteAt(TopOfData(computer), kRegion - 4096, data.Get(), 4096, &file), expected,
                       "a file's write while space is low");
}

void UseUpSpace(Computer* computer) {
    stage::Step("low space is kept for what the file system needs");
    TryNamed(computer, W("\\documents\\letter.txt"), kProtected);
    TryNamed(computer, W("\\$Mft"), STATUS_SUCCESS);
    stage::Step("and the last of it for nobody");
    constexpr ULONG length = 64 * kKiB;
    LONGLONG at = 0;
    for (; at < kWorkBytes - length && !stage::Failed(); at += length) {
        if (FixedStatus(&computer->User, DATA_VOLUME).SwapUsedBytes > kMiB) break;
        WriteWork(computer, at, length, 5);
    }
    const Bytes data(length);
    if (!data) return;
    stage::Check(at >= kMiB - length && at <= kMiB + length, "bytes that found space",
                 static_cast<ULONGLONG>(at));
    stage::CheckStatus(WriteAt(TopOfData(computer), at, data.Get(), length), kProtected,
                       "a write without space");
    stage::Step("what is redirected can still be overwritten");
    WriteWork(computer, 0, length, 6);
    CheckThroughStack(computer);
    CheckOwnSectors(computer);
}

void RefuseStorage(Computer* computer) {
    stage::Step("making and removing storage of a protected volume");
    const SWAP_CONFIG_REQUEST request = StorageRequest(DATA_VOLUME, kStorage);
    for (const ULONG code : {ULONG{IOCTL_KVR_ALLOCATE_SWAP}, ULONG{IOCTL_KVR_REMOVE_SWAP}})
        stage::CheckStatus(Ask(&computer->User, code, &request, sizeof(request)).Status,
                           STATUS_INVALID_PARAMETER, "the request");
    for (const int minor : {IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_REMOVE_DEVICE})
        stage::CheckStatus(SendPnp(TopOfData(computer), static_cast<UCHAR>(minor)),
                           STATUS_INSUFFICIENT_RESOURCES, "its removal");
}

// ---- the boots -------------------------------------------------------------------------------------------

PDEVICE_OBJECT AddPlain(Computer* computer) {
    PDEVICE_OBJECT plain =
        MakeRamDevice({.Name = PLAIN_VOLUME, .Sectors = stage::Medium(4, kMiB), .Size = kMiB});
    return plain && NT_SUCCESS(AddAndStart(computer->Driver, plain)) ? plain : nullptr;
}

void Off() {
    Computer* computer = BootComputer(kOptions);
    if (!computer) return;
    Install(computer, kText, kStorage);
    stage::Step("while protection is off nothing is refused");
    for (PDEVICE_OBJECT device : {computer->System, computer->Data, computer->Disk}) TryAll(device, Place::Off);
    TryWrite(computer->Disk, 0, nullptr, kPasses, "a write to the disk's first sector");
    EndComputer(computer);
}

void On() {
    Computer* computer = BootComputer(kOptions);
    PDEVICE_OBJECT plain = computer ? AddPlain(computer) : nullptr;
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
    TryDisks(computer);
    TryRemovable(computer);
    TryVolumeHandles(computer, plain);
    PassSystemFiles(computer);
    RefuseStorage(computer);
    UseUpSpace(computer);
    EndComputer(computer);
}

constexpr void (*kBoots[])() = {Off, On};

}  // namespace

const Story kRefusalsStory = {"refusals", "what is refused on protected volumes and their disks", kBoots, 2};
