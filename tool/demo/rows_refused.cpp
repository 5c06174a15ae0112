#include "machine/partition/formatter.h"
#include "machine/disk/image_disk.h"
#include "platform/host/io/device.h"
#include "platform/host/io/request.h"
#include "tool/error.h"
#include "tool/demo/stage.h"

namespace tool {
namespace {

constexpr std::uint64_t kRemovableSize = 16 * 1024 * 1024;
constexpr UCHAR kScsiRead10 = 0x28, kScsiWrite10 = 0x2A;

void CheckStatus(Stage& stage, const std::string& name, NTSTATUS status, NTSTATUS expected) {
    stage.report.Check(name, status == expected,
                       StatusText(status) + (status == expected ? "" : " instead of " + StatusText(expected)));
}

NTSTATUS SendCode(PDEVICE_OBJECT device, ULONG code, const void* input = nullptr, ULONG length = 0) {
    host::Control control{};
    control.code = code;
    control.input = input;
    control.inputLength = length;
    return host::SendControl(host::TopOfStack(device), control).status;
}

// Writes `bytes` at `offset` as a program does that opened the device itself; with no file object when null.
NTSTATUS WriteRaw(PDEVICE_OBJECT device, std::uint64_t offset, std::vector<std::uint8_t>& bytes,
                  PFILE_OBJECT file) {
    host::Request request;
    request.major = IRP_MJ_WRITE;
    request.offset = static_cast<LONGLONG>(offset);
    request.buffer = bytes.data();
    request.length = static_cast<ULONG>(bytes.size());
    request.originalFile = file;
    request.stackFile = file;
    return host::Send(host::TopOfStack(device), request).status;
}

std::vector<std::uint8_t> ReadRaw(PDEVICE_OBJECT device, std::uint64_t offset, std::uint32_t length) {
    std::vector<std::uint8_t> bytes(length);
    host::Request request;
    request.offset = static_cast<LONGLONG>(offset);
    request.buffer = bytes.data();
    request.length = length;
    Require(host::Send(host::TopOfStack(device), request).status, "cannot read the disk");
    return bytes;
}

void CheckDisk(Stage& stage) {
    machine::Machine& computer = stage.computer.Hardware();
    const machine::Volume& data = *computer.VolumeOf(stage.computer.DataNumber());
    const PDEVICE_OBJECT disk = computer.DiskOf(data.device->DiskNumber())->Device();
    const std::uint32_t sector = data.device->SectorSize();
    std::vector<std::uint8_t> boot = ReadRaw(disk, 0, sector);
    std::vector<std::uint8_t> second = ReadRaw(disk, sector, sector);
    std::vector<std::uint8_t> other(sector, 0xEB);
    CheckStatus(stage, "writing the disk's boot sector", WriteRaw(disk, 0, other, nullptr),
                STATUS_MEDIA_WRITE_PROTECTED);
    stage.report.Check("it still holds what it held", ReadRaw(disk, 0, sector) == boot && boot != other,
                       "sha256 " + Short(inspect::DigestOfBytes(boot.data(), boot.size())));
    CheckStatus(stage, "writing the partition table behind it", WriteRaw(disk, sector, second, nullptr),
                STATUS_MEDIA_WRITE_PROTECTED);
    CheckStatus(stage, "changing the partition layout", SendCode(disk, IOCTL_DISK_SET_DRIVE_LAYOUT_EX),
                STATUS_MEDIA_WRITE_PROTECTED);
}

NTSTATUS SendScsi(PDEVICE_OBJECT device, UCHAR operation) {
    SCSI_PASS_THROUGH request{};
    request.Length = sizeof request;
    request.CdbLength = 10;
    request.Cdb[0] = operation;
    return SendCode(device, IOCTL_SCSI_PASS_THROUGH, &request, sizeof request);
}

void CheckVolume(Stage& stage) {
    machine::Machine& computer = stage.computer.Hardware();
    const unsigned number = stage.computer.DataNumber();
    const PDEVICE_OBJECT volume = computer.VolumeOf(number)->device->Device();
    std::vector<std::uint8_t> sector = ReadRaw(volume, 0, computer.VolumeOf(number)->device->SectorSize());
    const PFILE_OBJECT handle = computer.FileObjectOf(number, u"", FO_VOLUME_OPEN);
    CheckStatus(stage, "writing through a handle to the protected volume", WriteRaw(volume, 0, sector, handle),
                STATUS_MEDIA_WRITE_PROTECTED);
    CheckStatus(stage, "moving a file's clusters", SendCode(volume, FSCTL_MOVE_FILE),
                STATUS_MEDIA_WRITE_PROTECTED);
    CheckStatus(stage, "shrinking the volume", SendCode(volume, FSCTL_SHRINK_VOLUME),
                STATUS_MEDIA_WRITE_PROTECTED);
    CheckStatus(stage, "a SCSI WRITE(10)", SendScsi(volume, kScsiWrite10), STATUS_ACCESS_DENIED);
    const NTSTATUS read = SendScsi(volume, kScsiRead10);
    stage.report.Check("a SCSI READ(10) reaches the disk", read != STATUS_ACCESS_DENIED,
                       "the disk's own answer is " + StatusText(read));
}

// The disk would forget a deleted file's sectors at once, the fixed state's among them.
void CheckTrim(Stage& stage) {
    const unsigned number = stage.computer.DataNumber();
    const PDEVICE_OBJECT volume = stage.computer.Hardware().VolumeOf(number)->device->Device();
    CheckStatus(stage, "telling the disk to forget sectors",
                SendCode(volume, IOCTL_STORAGE_MANAGE_DATA_SET_ATTRIBUTES), STATUS_NOT_SUPPORTED);
    unsigned deleted = 0;
    for (const auto& [path, file] : stage.fixedFiles)
        if (!file.directory && NT_SUCCESS(stage.computer.Data().Delete(path))) ++deleted;
    stage.CheckUnchanged("files are deleted and none of their sectors trimmed",
                         "with " + Count(deleted, "file") + " deleted");
    stage.computer.Shutdown();
    stage.computer.Boot();
    stage.CheckFiles("after the reboot they are back", stage.fixedFiles);
}

// The driver's own files cannot be opened by anybody else, so nobody moves or changes them.
void CheckHeldFiles(Stage& stage) {
    CheckStatus(stage, "deleting the swap file", stage.computer.Data().Delete(u"\\kvr.SWP"),
                STATUS_SHARING_VIOLATION);
    std::vector<std::uint8_t> bytes;
    CheckStatus(stage, "reading the map file", stage.computer.Data().ReadFile(u"\\kvr.MAP", bytes),
                STATUS_SHARING_VIOLATION);
    CheckStatus(stage, "renaming the configuration file",
                stage.computer.System().Rename(u"\\Windows\\system32\\drivers\\kvr.cfg",
                                               u"\\Windows\\system32\\drivers\\old.cfg"),
                STATUS_SHARING_VIOLATION);
}

unsigned PlugIn(Stage& stage, unsigned& disk) {
    machine::NewDisk made;
    made.path = stage.folder + "/removable.img";
    made.size = kRemovableSize;
    made.table = machine::TableKind::Mbr;
    made.volumes.resize(1);
    std::string error;
    if (!machine::CreateDisk(made, error)) throw Error(error);
    machine::MachineDisk plugged;
    plugged.medium = machine::ImageDisk::Open(made.path, made.sectorSize, error);
    plugged.removable = true;
    if (plugged.medium == nullptr) throw Error(error);
    Require(stage.computer.Hardware().AddDisk(std::move(plugged), disk), "the removable disk does not start");
    return stage.computer.Hardware().Volumes().back()->device->Number();
}

void CheckRemovable(Stage& stage) {
    unsigned disk = 0;
    const unsigned number = PlugIn(stage, disk);
    machine::Machine& computer = stage.computer.Hardware();
    const PDEVICE_OBJECT volume = computer.VolumeOf(number)->device->Device();
    const std::string image = stage.folder + "/removable.img";
    const VolumeHash before = HashVolume(image, 0, kRemovableSize, {});
    std::vector<machine::DirectoryEntry> entries;
    CheckStatus(stage, "a removable volume can be read", stage.computer.FilesOf(number).List(u"\\", entries),
                STATUS_SUCCESS);
    const std::vector<std::uint8_t> text(5000, 'x');
    CheckStatus(stage, "writing a file on it (NTFS)", stage.computer.FilesOf(number).WriteFile(u"\\file", text),
                STATUS_NOT_SUPPORTED);
    std::vector<std::uint8_t> sector = ReadRaw(volume, 0, 512);
    CheckStatus(stage, "writing it without a file system", WriteRaw(volume, 0, sector, nullptr),
                STATUS_MEDIA_WRITE_PROTECTED);
    CheckStatus(stage, "asking whether it is writable", SendCode(volume, IOCTL_DISK_IS_WRITABLE),
                STATUS_MEDIA_WRITE_PROTECTED);
    const VolumeHash after = HashVolume(image, 0, kRemovableSize, {});
    stage.report.Check("it is as it was", before == after,
                       "sha256 " + Short(before.digest) + " before, " + Short(after.digest) + " after");
    CheckStatus(stage, "it can be removed", computer.RemoveDisk(disk), STATUS_SUCCESS);
}

void CheckRemoval(Stage& stage) {
    machine::Machine& computer = stage.computer.Hardware();
    CheckStatus(stage, "removing the protected volume", computer.RemoveVolume(stage.computer.DataNumber()),
                STATUS_INSUFFICIENT_RESOURCES);
    CheckStatus(stage, "removing the volume with the configuration",
                computer.RemoveVolume(stage.computer.SystemNumber()), STATUS_INSUFFICIENT_RESOURCES);
}

}  // namespace

void ShowRefused(Stage& stage) {
    stage.BootWith(stage.Protecting(config::kBootModeDiscard));
    CheckDisk(stage);
    CheckVolume(stage);
    CheckTrim(stage);
    CheckHeldFiles(stage);
    CheckRemovable(stage);
    CheckRemoval(stage);
    stage.CheckFiles("after all that the files are there", stage.fixedFiles);
    stage.computer.Shutdown();
    stage.CheckUnchanged("and the volume is untouched", "after it");
}

}  // namespace tool
