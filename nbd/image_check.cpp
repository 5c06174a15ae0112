#include "nbd/image_check.h"
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <fcntl.h>
#include "machine/partition/formatter.h"
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

bool HoldsFileSystem(const Image& image) {
    return image.Holds(3, "NTFS    ") || image.Holds(1080, "\x53\xef");
}

// A table or a bare file system tells; 512 where nothing does.
std::uint32_t SectorBytes(const Image& image) {
    const bool large = !image.Holds(512, "EFI PART") &&
                       (image.Holds(4096, "EFI PART") ||
                        (image.Holds(3, "NTFS    ") && image.Holds(11, std::string_view("\x00\x10", 2))));
    return large ? 4096 : 512;
}

void CheckFormat(const Image& image, const std::string& path) {
    for (const auto& known : kFormats) {
        if (image.Holds(known.offset, known.mark))
            throw Error("disk image " + path + " is no raw image but " + known.format +
                        " (qemu-img convert -O raw makes one)");
    }
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

FolderDisk CheckImage(const std::string& path) {
    FolderDisk disk{Absolute(path), 512};
    const Image image(disk.path);
    CheckFormat(image, disk.path);
    disk.sectorBytes = SectorBytes(image);
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
