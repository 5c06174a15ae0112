#include "nbd/folder_maker.h"
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <sys/stat.h>
#include "client/driver_switches.h"
#include "client/status.h"
#include "client/wire_channel.h"
#include "machine/partition/formatter.h"
#include "machine/boot/any_file_system.h"
#include "machine/boot/guest_volume.h"
#include "machine/boot/registry_file.h"
#include "machine/disk/host_disk.h"
#include "machine/disk/image_disk.h"
#include "machine/ntfs/format.h"
#include "nbd/disk_owner.h"
#include "nbd/image_check.h"
#include "nbd/looked_at.h"
#include "platform/owners.h"

namespace nbd {
namespace {

constexpr std::uint64_t kSystemDiskBytes = 64 * 1024 * 1024;
constexpr char kOwnDisk[] = "disk0.img";

// Removes what was made unless it is kept.
class Draft {
public:
    explicit Draft(const std::string& path) : path_(path), existed_(std::filesystem::exists(path)) {
        std::error_code error;
        if (existed_ &&
            (!std::filesystem::is_directory(path, error) || !std::filesystem::is_empty(path, error)))
            throw Error(path + " exists and is no empty folder");
        std::filesystem::create_directories(path, error);
        if (error) throw Error("cannot make the folder " + path + ": " + error.message());
        if (!existed_) std::filesystem::permissions(path, std::filesystem::perms::owner_all, error);
    }
    ~Draft() {
        std::error_code ignored;
        if (path_.empty()) return;
        for (const auto& entry : std::filesystem::directory_iterator(path_, ignored))
            std::filesystem::remove_all(entry.path(), ignored);
        if (!existed_) std::filesystem::remove(path_, ignored);
    }
    Draft(const Draft&) = delete;
    Draft& operator=(const Draft&) = delete;
    void Keep() { path_.clear(); }

private:
    std::string path_;
    const bool existed_;
};

// What is made meanwhile nobody else may read.
class OwnFilesOnly {
public:
    OwnFilesOnly() : before_(umask(0077)) {}
    ~OwnFilesOnly() { umask(before_); }
    OwnFilesOnly(const OwnFilesOnly&) = delete;
    OwnFilesOnly& operator=(const OwnFilesOnly&) = delete;

private:
    const mode_t before_;
};

// Whether both name one file, or one block device by whatever nodes.
bool IsSameDisk(const std::string& one, const std::string& other) {
    if (one == other) return true;
    struct stat first, second;
    if (stat(one.c_str(), &first) != 0 || stat(other.c_str(), &second) != 0) return false;
    if (S_ISBLK(first.st_mode) && S_ISBLK(second.st_mode)) return first.st_rdev == second.st_rdev;
    return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

void CheckSocketPath(const MachineFolder& folder) {
    sockaddr_un ignored;
    if (!tool::wire::MakeAddress(folder.File(tool::wire::kSocketName), ignored))
        throw Error(folder.path +
                    " is too long a path for the sockets of a server; make the machine elsewhere");
}

void RequireDone(NTSTATUS status, const std::string& what) {
    if (!NT_SUCCESS(status)) throw Error(what + ": " + ctl::Hex(status));
}

// A boot without the driver and with nothing but the images, on which nothing is changed.
std::vector<std::string> LookAt(const std::vector<FolderDisk>& images) {
    machine::MachineOptions options;
    for (const FolderDisk& image : images) {
        std::string error;
        std::shared_ptr<machine::Disk> disk = machine::HostDisk::Open(image.path, image.sectorBytes, error);
        if (disk == nullptr) throw Error(error);
        options.disks.push_back({.medium = std::make_shared<LookedAt>(std::move(disk))});
    }
    options.fileSystem = [](const machine::VolumeDevice&) { return machine::AnyFileSystem(); };
    machine::Machine computer(std::move(options));
    RequireDone(computer.PowerOn(), "the images cannot be used");
    std::vector<std::string> notes = machine::ReadOnlyVolumes(computer);
    KVR_DISCARD(computer.Shutdown().dismount, "there was nothing to write");
    return notes;
}

void MakeSystemFolders(machine::Machine& computer) {
    machine::GuestFileSystem* files = machine::NtfsOn(computer, 1);
    if (files == nullptr) throw Error("the new system disk cannot be mounted");
    for (const char16_t* folder : {u"\\Windows", u"\\Windows\\system32", u"\\Windows\\system32\\drivers"})
        RequireDone(files->MakeDirectory(folder), "the system disk's folders cannot be made");
}

// A boot without the driver and with nothing but that disk.
void PrepareSystemDisk(const std::string& path) {
    std::string error;
    machine::MachineOptions options;
    options.disks.push_back({.medium = machine::ImageDisk::Open(path, 512, error)});
    if (options.disks[0].medium == nullptr) throw Error(error);
    options.fileSystem = [](const machine::VolumeDevice&) {
        machine::FileSystemDriver driver;
        driver.mount = machine::NtfsFactory();
        return driver;
    };
    machine::Machine computer(std::move(options));
    RequireDone(computer.PowerOn(), "the system disk cannot be used");
    MakeSystemFolders(computer);
    const machine::ShutdownReport report = computer.Shutdown();
    RequireDone(report.dismount, "the system disk cannot be written");
}

void MakeSystemDisk(const MachineFolder& folder) {
    machine::NewDisk disk;
    disk.path = folder.File(kSystemImage);
    disk.size = kSystemDiskBytes;
    disk.table = machine::TableKind::Mbr;
    disk.volumes.push_back({.label = "KvrSystem"});
    std::string error;
    if (!machine::CreateDisk(disk, error)) throw Error(error);
    PrepareSystemDisk(disk.path);
}

// The stricter rules, as an installation sets them.
void MakeRegistry(const MachineFolder& folder) {
    std::string error;
    const auto registry = machine::RegistryFile::Open(folder.File(kRegistryFile), error);
    if (registry == nullptr) throw Error(error);
    RequireDone(ctl::SetDriverSwitch(*registry, ctl::kHardening, true), "the registry cannot be written");
}

FolderDisk MakeOwnDisk(const NewMachine& machine, const MachineFolder& folder) {
    if (machine.volumes == 0) throw Error("a disk needs a volume");
    if (machine.size < kLeastDisk || machine.size % 4096 != 0)
        throw Error("a disk of " + std::to_string(machine.size) +
                    " bytes cannot be made; give at least 1 MiB, in whole blocks of 4096 bytes");
    machine::NewDisk disk;
    disk.path = folder.File(kOwnDisk);
    disk.size = machine.size;
    disk.table = machine.layout;
    machine::NewVolume volume;
    volume.fileSystem = machine.fileSystem;
    disk.volumes.assign(machine.volumes, volume);
    std::string error;
    if (!machine::CreateDisk(disk, error)) throw Error(error);
    return {kOwnDisk, 512};
}

}  // namespace

std::vector<std::string> MakeMachine(const NewMachine& machine) {
    MachineFolder folder;
    // As the server will find it, behind links.
    folder.path = std::filesystem::weakly_canonical(machine.path).string();
    CheckSocketPath(folder);
    const OwnFilesOnly only;
    for (const std::string& image : machine.images) {
        folder.disks.push_back(CheckImage(image, machine.sectorBytes));
        if (!machine.takesOver) RequireNobodys(folder.disks.back().path);
        const auto same = [&](const FolderDisk& disk) {
            return IsSameDisk(disk.path, folder.disks.back().path);
        };
        if (std::count_if(folder.disks.begin(), folder.disks.end(), same) != 1)
            throw Error("disk image " + image + " is named twice");
    }
    if (folder.disks.size() > kMostDisks)
        throw Error("a machine has at most " + std::to_string(kMostDisks) + " disks");
    Draft draft(machine.path);
    std::vector<std::string> notes;
    if (!folder.disks.empty()) notes = LookAt(folder.disks);
    MakeSystemDisk(folder);
    MakeRegistry(folder);
    if (folder.disks.empty()) folder.disks.push_back(MakeOwnDisk(machine, folder));
    folder.Write();
    MarkDisks(folder);
    draft.Keep();
    return notes;
}

}  // namespace nbd
