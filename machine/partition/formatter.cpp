#include "machine/partition/formatter.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <random>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include "machine/disk/image_disk.h"
#include "machine/partition/subprocess.h"
#include "posix/file_io.h"

namespace machine {
namespace {

// Below this the format tools refuse, with messages that speak of blocks.
constexpr std::uint64_t kLeastVolume = 4 * 1024 * 1024;

// Removes a file at the end of its scope unless it is kept.
class Scratch {
public:
    explicit Scratch(std::string path) : path_(std::move(path)) {}
    ~Scratch() {
        if (!path_.empty()) unlink(path_.c_str());
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    void Keep() { path_.clear(); }

private:
    std::string path_;
};

std::string FirstLine(const std::string& text) {
    std::string line = text.substr(0, text.find('\n'));
    return line.empty() ? "no message" : line;
}

// Copies the allocated parts of `from` into `to` at `offset`, leaving the holes out.
bool CopySparse(int from, int to, std::uint64_t offset) {
    std::vector<char> part(1024 * 1024);
    for (off_t at = lseek(from, 0, SEEK_DATA); at >= 0; at = lseek(from, at, SEEK_DATA)) {
        const off_t end = lseek(from, at, SEEK_HOLE);
        while (at < end) {
            const std::size_t want = static_cast<std::size_t>(std::min<off_t>(end - at, part.size()));
            if (!posix::ReadAt(from, part.data(), want, static_cast<std::uint64_t>(at)) ||
                !posix::WriteAt(to, part.data(), want, offset + static_cast<std::uint64_t>(at)))
                return false;
            at += static_cast<off_t>(want);
        }
    }
    return errno == ENXIO;  // nothing but a hole is left
}

bool IsValidClusterSize(const NewVolume& volume, std::uint32_t sectorSize) {
    const bool ext = volume.fileSystem == FileSystemKind::Ext;
    const std::uint32_t cluster = volume.clusterSize;
    const std::uint32_t least = ext ? std::max<std::uint32_t>(sectorSize, 1024) : sectorSize;
    return cluster >= least && cluster <= (ext ? 4096u : 65536u) && (cluster & (cluster - 1)) == 0;
}

std::string ClusterError(const NewVolume& volume) {
    if (volume.fileSystem == FileSystemKind::Ext)
        return "block size " + std::to_string(volume.clusterSize) +
               " is no power of two from 1024 to 4096 that holds a sector";
    return "cluster size " + std::to_string(volume.clusterSize) +
           " is no power of two from the sector size to 65536";
}

bool CheckRequest(const NewDisk& disk, std::string& error) {
    if (!IsValidSectorSize(disk.sectorSize)) {
        error = "sector size " + std::to_string(disk.sectorSize) + " is neither 512 nor 4096";
    } else if (disk.size == 0 || disk.size % disk.sectorSize != 0) {
        error = "disk size " + std::to_string(disk.size) + " is no whole number of sectors";
    } else if (disk.table == TableKind::Mbr && disk.size / disk.sectorSize > 0xFFFFFFFF) {
        error = "an MBR disk has at most 4294967295 sectors";
    } else if (disk.table == TableKind::Gpt && disk.volumes.size() > 128) {
        error = "a GPT disk has at most 128 partitions";
    }
    for (const NewVolume& volume : disk.volumes) {
        if (!IsValidClusterSize(volume, disk.sectorSize)) error = ClusterError(volume);
        if (volume.size % disk.sectorSize != 0) {
            error = "volume size " + std::to_string(volume.size) + " is no whole number of sectors";
        }
    }
    return error.empty();
}

bool WriteTable(const NewDisk& disk, int image, const std::vector<NewPartition>& partitions,
                std::string& error) {
    if (disk.table == TableKind::None) return true;
    std::random_device random;
    const std::uint64_t seed = static_cast<std::uint64_t>(random()) << 32 | random();
    const std::vector<DiskPiece> pieces = disk.table == TableKind::Gpt
                                              ? MakeGpt(disk.size, disk.sectorSize, partitions, seed)
                                              : MakeMbr(disk.size, disk.sectorSize, partitions, seed);
    for (const DiskPiece& piece : pieces) {
        if (!posix::WriteAt(image, piece.bytes.data(), piece.bytes.size(), piece.offset)) {
            error = "cannot write the partition table of " + disk.path + ": " + std::strerror(errno);
            return false;
        }
    }
    return true;
}

struct FormatTool {
    std::string name, package;
    std::vector<std::string> arguments;  // but for the label and the path
};

FormatTool NtfsTool(const NewDisk& disk, const NewVolume& volume, std::uint64_t offset) {
    return {"mkntfs",
            "ntfs-3g",
            {"-q", "-F", "-Q", "-p", std::to_string(offset / disk.sectorSize), "-H", "255", "-S", "63", "-s",
             std::to_string(disk.sectorSize), "-c", std::to_string(volume.clusterSize)}};
}

// Everything is made now: tables that a guest's kernel would initialise in the background would fill the swap
// of a protected volume anew in each boot.
FormatTool Ext4Tool(const NewVolume& volume) {
    return {"mke2fs",
            "e2fsprogs",
            {"-q", "-F", "-t", "ext4", "-b", std::to_string(volume.clusterSize), "-E",
             "nodiscard,lazy_itable_init=0,lazy_journal_init=0"}};
}

bool RunFormat(const std::string& path, const NewDisk& disk, const NewVolume& volume, std::uint64_t offset,
               std::string& error) {
    FormatTool tool =
        volume.fileSystem == FileSystemKind::Ext ? Ext4Tool(volume) : NtfsTool(disk, volume, offset);
    if (!volume.label.empty()) tool.arguments.insert(tool.arguments.end(), {"-L", volume.label});
    tool.arguments.push_back(path);
    const ToolResult result = RunTool(tool.name, tool.arguments);
    if (!result.started) {
        error = tool.name + " is missing; it comes with the package " + tool.package;
    } else if (result.exitCode != 0) {
        error = tool.name + " failed with exit code " + std::to_string(result.exitCode) + ": " +
                FirstLine(result.output);
    }
    return error.empty();
}

// The tool formats a whole file, so the volume is made beside the image and copied into its place.
bool FormatVolume(const NewDisk& disk, int image, const NewVolume& volume, const NewPartition& place,
                  std::string& error) {
    if (place.length < kLeastVolume) {
        error = "a volume of " + std::to_string(place.length) + " bytes is too small for a file system";
        return false;
    }
    const std::string path = disk.path + ".volume";
    if (!ImageDisk::Create(path, place.length, error)) return false;
    const Scratch scratch(path);
    if (!RunFormat(path, disk, volume, place.offset, error)) return false;
    const posix::File made(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (made.Get() >= 0 && CopySparse(made.Get(), image, place.offset)) return true;
    error = "cannot copy the new volume into " + disk.path + ": " + std::strerror(errno);
    return false;
}

}  // namespace

bool CreateDisk(const NewDisk& disk, std::string& error) {
    error.clear();
    std::vector<std::uint64_t> sizes;
    for (const NewVolume& volume : disk.volumes) sizes.push_back(volume.size);
    std::vector<NewPartition> partitions;
    if (!CheckRequest(disk, error) || !LayOutPartitions(disk.size, sizes, disk.table, partitions, error) ||
        !ImageDisk::Create(disk.path, disk.size, error)) {
        return false;
    }
    Scratch undo(disk.path);
    const posix::File image(open(disk.path.c_str(), O_RDWR | O_CLOEXEC));
    if (image.Get() < 0) {
        error = "cannot open " + disk.path + ": " + std::strerror(errno);
        return false;
    }
    for (std::size_t i = 0; i < partitions.size(); ++i)
        partitions[i].unixData = disk.volumes[i].fileSystem == FileSystemKind::Ext;
    if (!WriteTable(disk, image.Get(), partitions, error)) return false;
    for (std::size_t i = 0; i < partitions.size(); ++i) {
        const NewVolume& volume = disk.volumes[i];
        if (volume.fileSystem == FileSystemKind::None) continue;
        if (!FormatVolume(disk, image.Get(), volume, partitions[i], error)) return false;
    }
    if (fsync(image.Get()) != 0) {
        error = "cannot write " + disk.path + ": " + std::strerror(errno);
        return false;
    }
    undo.Keep();
    return true;
}

bool ReadImagePartitions(const std::string& path, std::uint32_t sectorSize, PartitionTable& table,
                         std::string& error) {
    const posix::File image(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const off_t size = image.Get() < 0 ? -1 : lseek(image.Get(), 0, SEEK_END);
    if (size < 0) {
        error = "cannot read disk image " + path + ": " + std::strerror(errno);
        return false;
    }
    const auto read = [&](std::uint64_t offset, void* buffer, std::uint32_t length) {
        return posix::ReadAt(image.Get(), buffer, length, offset);
    };
    table = ReadPartitionTable(read, static_cast<std::uint64_t>(size) / sectorSize * sectorSize, sectorSize);
    return true;
}

}  // namespace machine
