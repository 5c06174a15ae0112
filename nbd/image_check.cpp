#include "nbd/image_check.h"
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <fcntl.h>
#include "machine/disk/host_disk.h"
#include "machine/disk/host_use.h"
#include "machine/disk/remote_disk.h"
#include "machine/partition/partition_table.h"
#include "posix/file_io.h"

namespace nbd {
namespace {

// Where formats that are no raw disk say so.
constexpr struct {
    std::size_t offset;
    std::string_view mark;
    const char* format;
} kFormats[] = {
    {0, "QFI\xfb", "qcow2"},
    {0, "QED", "qed"},
    {0, "KDMV", "vmdk"},
    {0, "COWD", "vmdk"},
    {0, "# Disk DescriptorFile", "vmdk"},
    {0, "vhdxfile", "vhdx"},
    {0, "conectix", "vhd"},
    {64, "\x7f\x10\xda\xbe", "vdi"},
    {0, "WithoutFreeSpace", "parallels"},
    {0, "WithouFreSpacExt", "parallels"},
    {0, "Bochs Virtual HD Image", "bochs"},
    {0, "\x1f\x8b", "gzip"},
    {0,
     "\xfd"
     "7zXZ",
     "xz"},
    {0, "BZh", "bzip2"},
    {0, "\x28\xb5\x2f\xfd", "zstd"},
};

using machine::HostDisk;

std::unique_ptr<HostDisk> OpenDisk(const std::string& name, std::uint32_t sectorBytes) {
    std::string error;
    std::unique_ptr<HostDisk> disk = HostDisk::Open(name, sectorBytes, error);
    if (disk == nullptr) throw Error(error);
    return disk;
}

// False for bytes that the disk does not have, or cannot read.
bool Holds(HostDisk& disk, std::uint64_t offset, std::string_view mark) {
    const std::uint64_t sector = disk.SectorSize();
    const std::uint64_t first = offset / sector * sector;
    const std::uint64_t end = (offset + mark.size() + sector - 1) / sector * sector;
    std::string read(end - first, '\0');
    return end <= disk.Size() && NT_SUCCESS(disk.Read(first, read.data(), read.size())) &&
           read.compare(offset - first, mark.size(), mark) == 0;
}

std::string Absolute(const std::string& path) {
    char* found = realpath(path.c_str(), nullptr);
    if (found == nullptr) throw Error("cannot use disk image " + path + ": " + std::strerror(errno));
    std::string absolute = found;
    std::free(found);
    return absolute;
}

bool HoldsFileSystem(HostDisk& disk, std::uint64_t offset = 0) {
    return Holds(disk, offset + 3, "NTFS    ") || Holds(disk, offset + 1080, "\x53\xef") ||
           Holds(disk, offset + 3, "EXFAT   ") || Holds(disk, offset + 54, "FAT") ||
           Holds(disk, offset + 82, "FAT32");
}

// The table's numbers may count larger sectors than the disk is opened with.
machine::PartitionTable TableOf(HostDisk& disk, std::uint32_t sectorBytes) {
    const auto read = [&](std::uint64_t offset, void* buffer, std::uint32_t length) {
        return NT_SUCCESS(disk.Read(offset, buffer, length));
    };
    return machine::ReadPartitionTable(read, disk.Size() / sectorBytes * sectorBytes, sectorBytes);
}

// Do the partitions lie where file systems begin, when the table's numbers count sectors of that size?
bool FindsFileSystems(HostDisk& disk, std::uint32_t sectorBytes) {
    const machine::PartitionTable table = TableOf(disk, sectorBytes);
    return table.kind == machine::TableKind::Mbr &&
           std::any_of(table.partitions.begin(), table.partitions.end(),
                       [&](const auto& partition) { return HoldsFileSystem(disk, partition.offset); });
}

// A GPT or a bare file system tells; an MBR does not, but what lies where it points does. 512 where nothing
// tells and the disk can address them.
std::uint32_t SectorBytes(HostDisk& disk, const std::string& name) {
    if (disk.SectorSize() == 4096 || Holds(disk, 4096, "EFI PART")) return 4096;
    if (Holds(disk, 512, "EFI PART")) return 512;
    if (HoldsFileSystem(disk))
        return Holds(disk, 3, "NTFS    ") && Holds(disk, 11, std::string_view("\x00\x10", 2)) ? 4096 : 512;
    const bool large = FindsFileSystems(disk, 4096);
    if (large && FindsFileSystems(disk, 512))
        throw Error("disk image " + name +
                    " makes sense with sectors of 512 and of 4096 bytes; say which with --sector-size");
    return large ? 4096 : 512;
}

// Before anything is opened: a pipe would wait for somebody to write to it.
void CheckKind(const std::string& path) {
    if (!std::filesystem::is_regular_file(path) && !std::filesystem::is_block_file(path))
        throw Error("cannot use disk image " + path + ": " +
                    (std::filesystem::is_directory(path) ? std::strerror(EISDIR)
                                                         : "it is neither a file nor a block device"));
}

// The machine's file names its disks in lines.
void CheckName(const std::string& path) {
    if (std::any_of(path.begin(), path.end(), [](unsigned char c) { return c < ' ' || c == 0x7F; }))
        throw Error("disk image " + path + " has a name with control characters; rename it");
}

// The server's working folder is not the user's.
void CheckUri(const std::string& uri) {
    for (const std::string_view key : {"socket=", "tls-certificates=", "tls-psk-file="}) {
        const std::size_t found = uri.find(key);
        if (found == uri.npos) continue;
        const std::string_view path = std::string_view(uri).substr(found + key.size());
        if (!path.starts_with('/') && !path.starts_with("%2F") && !path.starts_with("%2f"))
            throw Error("cannot use disk " + uri + ": behind " + std::string(key) +
                        " an absolute path has to stand");
    }
}

// By the file itself: one of another format need not have a disk's size.
void CheckFormat(const std::string& path) {
    const posix::File file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    for (const auto& known : kFormats) {
        std::string read(known.mark.size(), '\0');
        if (posix::ReadAt(file.Get(), read.data(), read.size(), known.offset) && read == known.mark)
            throw Error("disk image " + path + " is no raw image but " + known.format +
                        " (qemu-img convert -O raw makes one)");
    }
    const std::string member = machine::MembershipOf(file.Get());
    if (!member.empty()) throw Error("cannot use disk image " + path + ": it is " + member);
}

void CheckContents(HostDisk& disk, const std::string& name) {
    if (disk.Size() < kLeastDisk)
        throw Error("disk image " + name + " is too small: " + std::to_string(disk.Size()) + " bytes");
    const machine::PartitionTable table = TableOf(disk, disk.SectorSize());
    if (table.kind == machine::TableKind::None && !HoldsFileSystem(disk))
        throw Error("disk image " + name + " holds neither a partition table nor a file system");
    if (!table.partitions.empty()) return;
    throw Error("disk image " + name + " holds no partition that can be used" +
                (table.problems.empty() ? "" : ": " + table.problems.front()));
}

}  // namespace

FolderDisk CheckImage(const std::string& path, std::uint32_t sectorBytes) {
    const bool remote = machine::RemoteDisk::IsUri(path);
    FolderDisk found{remote ? path : Absolute(path), sectorBytes};
    CheckName(found.path);
    if (remote) {
        CheckUri(path);
    } else {
        CheckKind(found.path);
        CheckFormat(found.path);
    }
    // Opened as a machine opens it: for writing, and by nobody else.
    std::unique_ptr<HostDisk> disk = OpenDisk(found.path, sectorBytes);
    if (sectorBytes == 0) found.sectorBytes = SectorBytes(*disk, found.path);
    if (found.sectorBytes != disk->SectorSize()) {
        disk.reset();
        disk = OpenDisk(found.path, found.sectorBytes);
    }
    CheckContents(*disk, found.path);
    return found;
}

}  // namespace nbd
