#include "nbd/image_check.h"
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <fcntl.h>
#include "machine/partition/formatter.h"
#include "machine/disk/host_use.h"
#include "machine/disk/image_disk.h"
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

class Image {
public:
    explicit Image(const std::string& path) : file_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}

    bool Holds(std::uint64_t offset, std::string_view mark) const {
        std::string read(mark.size(), '\0');
        return posix::ReadAt(file_.Get(), read.data(), read.size(), offset) && read == mark;
    }

    std::string Membership() const { return machine::MembershipOf(file_.Get()); }

private:
    posix::File file_;
};

std::string Absolute(const std::string& path) {
    char* found = realpath(path.c_str(), nullptr);
    if (found == nullptr) throw Error("cannot use disk image " + path + ": " + std::strerror(errno));
    std::string absolute = found;
    std::free(found);
    return absolute;
}

bool HoldsFileSystem(const Image& image, std::uint64_t offset = 0) {
    return image.Holds(offset + 3, "NTFS    ") || image.Holds(offset + 1080, "\x53\xef") ||
           image.Holds(offset + 3, "EXFAT   ") || image.Holds(offset + 54, "FAT") ||
           image.Holds(offset + 82, "FAT32");
}

// Do the partitions lie where file systems begin, when the table's numbers count sectors of that size?
bool FindsFileSystems(const Image& image, const std::string& path, std::uint32_t sectorBytes) {
    machine::PartitionTable table;
    std::string ignored;
    if (!machine::ReadImagePartitions(path, sectorBytes, table, ignored)) return false;
    return table.kind == machine::TableKind::Mbr &&
           std::any_of(table.partitions.begin(), table.partitions.end(),
                       [&](const auto& partition) { return HoldsFileSystem(image, partition.offset); });
}

// A GPT or a bare file system tells; an MBR does not, but what lies where it points does. 512 where nothing
// tells.
std::uint32_t SectorBytes(const Image& image, const std::string& path) {
    if (image.Holds(512, "EFI PART")) return 512;
    if (image.Holds(4096, "EFI PART")) return 4096;
    if (HoldsFileSystem(image))
        return image.Holds(3, "NTFS    ") && image.Holds(11, std::string_view("\x00\x10", 2)) ? 4096 : 512;
    const bool large = FindsFileSystems(image, path, 4096);
    if (large && FindsFileSystems(image, path, 512))
        throw Error("disk image " + path +
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

void CheckFormat(const Image& image, const std::string& path) {
    for (const auto& known : kFormats) {
        if (image.Holds(known.offset, known.mark))
            throw Error("disk image " + path + " is no raw image but " + known.format +
                        " (qemu-img convert -O raw makes one)");
    }
    const std::string member = image.Membership();
    if (!member.empty()) throw Error("cannot use disk image " + path + ": it is " + member);
}

void CheckContents(const Image& image, const FolderDisk& disk) {
    machine::PartitionTable table;
    std::string error;
    if (!machine::ReadImagePartitions(disk.path, disk.sectorBytes, table, error)) throw Error(error);
    if (table.kind == machine::TableKind::None && !HoldsFileSystem(image))
        throw Error("disk image " + disk.path + " holds neither a partition table nor a file system");
    if (!table.partitions.empty()) return;
    throw Error("disk image " + disk.path + " holds no partition that can be used" +
                (table.problems.empty() ? "" : ": " + table.problems.front()));
}

}  // namespace

FolderDisk CheckImage(const std::string& path, std::uint32_t sectorBytes) {
    FolderDisk disk{Absolute(path), sectorBytes};
    CheckName(disk.path);
    CheckKind(disk.path);
    const Image image(disk.path);
    CheckFormat(image, disk.path);
    if (sectorBytes == 0) disk.sectorBytes = SectorBytes(image, disk.path);
    std::string error;
    // Opened as a machine opens it: for writing, and by nobody else.
    const auto opened = machine::ImageDisk::Open(disk.path, disk.sectorBytes, error);
    if (opened == nullptr) throw Error(error);
    if (opened->Size() < kLeastDisk)
        throw Error("disk image " + disk.path + " is too small: " + std::to_string(opened->Size()) + " bytes");
    CheckContents(image, disk);
    return disk;
}

}  // namespace nbd
