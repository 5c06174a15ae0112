#include "machine/disk/host_use.h"
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string_view>
#include <vector>
#include <dirent.h>
#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include "posix/file_io.h"

namespace machine {
namespace {

namespace fs = std::filesystem;

bool IsSame(const struct stat& one, const struct stat& other) {
    if (S_ISBLK(one.st_mode) && S_ISBLK(other.st_mode)) return one.st_rdev == other.st_rdev;
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool IsSame(const struct stat& one, const std::string& path) {
    struct stat other {};
    return stat(path.c_str(), &other) == 0 && IsSame(one, other);
}

// The kernel's lists write characters that would break their columns as octal numbers.
std::string Unescaped(const std::string& word) {
    std::string text;
    for (std::size_t i = 0; i < word.size(); ++i) {
        const bool escape =
            word[i] == '\\' && word.find_first_not_of("01234567", i + 1) >= i + 4 && i + 3 < word.size();
        text += escape ? static_cast<char>(std::stoi(word.substr(i + 1, 3), nullptr, 8)) : word[i];
        if (escape) i += 3;
    }
    return text;
}

std::string FirstLineOf(const fs::path& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

struct CloseFolder {
    void operator()(DIR* folder) const { closedir(folder); }
};

// By the C library: what the standard library's iterator needs memory for it cannot be refused.
std::vector<fs::path> EntriesOf(const fs::path& folder) {
    std::vector<fs::path> entries;
    const std::unique_ptr<DIR, CloseFolder> opened(opendir(folder.c_str()));
    while (const dirent* entry = opened ? readdir(opened.get()) : nullptr) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") entries.push_back(folder / name);
    }
    return entries;
}

std::string MajorMinor(dev_t device) {
    return std::to_string(major(device)) + ":" + std::to_string(minor(device));
}

fs::path FolderOf(const std::string& majorMinor) {
    return "/sys/dev/block/" + majorMinor;
}

// The mount table names a device by its number, some file systems and every FUSE mount by the path alone.
std::string MountOf(const struct stat& info, const std::string& majorMinor) {
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream words(line);
        std::string skipped, device, place, source;
        words >> skipped >> skipped >> device >> skipped >> place;
        while (words >> skipped && skipped != "-") {
        }
        words >> skipped >> source;
        const bool byPath = source.starts_with('/') && info.st_ino != 0 && IsSame(info, Unescaped(source));
        if ((!majorMinor.empty() && device == majorMinor) || byPath) return Unescaped(place);
    }
    return {};
}

bool IsSwap(const struct stat& info) {
    std::ifstream swaps("/proc/swaps");
    std::string line;
    std::getline(swaps, line);  // the columns' names
    while (std::getline(swaps, line))
        if (IsSame(info, Unescaped(line.substr(0, line.find_first_of(" \t"))))) return true;
    return false;
}

// By the kernel's own record where it may be asked, which no other path or namespace deceives.
bool IsLoopOver(const fs::path& loop, const struct stat& info) {
    const posix::File device(
        open(("/dev/" + loop.filename().string()).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    loop_info64 status{};
    if (device.IsOpen() && ioctl(device.Get(), LOOP_GET_STATUS64, &status) == 0) {
        if (S_ISBLK(info.st_mode)) return status.lo_rdevice == info.st_rdev;
        return status.lo_inode == info.st_ino && status.lo_device == info.st_dev;
    }
    return IsSame(info, FirstLineOf(loop / "loop/backing_file"));
}

std::string UserOfDevice(const fs::path& folder, const std::string& majorMinor);

std::string LoopOver(const struct stat& info) {
    for (const fs::path& loop : EntriesOf("/sys/block")) {
        if (!fs::exists(loop / "loop/backing_file") || !IsLoopOver(loop, info)) continue;
        const std::string user = UserOfDevice(loop, FirstLineOf(loop / "dev"));
        return "the loop device /dev/" + loop.filename().string() + " is made of it" +
               (user.empty() ? "" : ", and " + user);
    }
    return {};
}

// A mapped device's own name says more than dm-3.
std::string NameOfHolder(const fs::path& holder) {
    const std::string mapped = FirstLineOf(holder / "dm/name");
    return mapped.empty() ? holder.filename().string() : "/dev/mapper/" + mapped;
}

// Of a device or of its partitions.
std::string UserOfDevice(const fs::path& folder, const std::string& majorMinor) {
    struct stat device {};
    const std::string node = "/dev/" + fs::path(fs::weakly_canonical(folder)).filename().string();
    if (stat(node.c_str(), &device) != 0) device = {};
    const std::string place = MountOf(device, majorMinor);
    if (!place.empty()) return node + " is mounted on " + place;
    if (device.st_ino != 0 && IsSwap(device)) return "the host swaps to " + node;
    for (const fs::path& holder : EntriesOf(folder / "holders"))
        return NameOfHolder(holder) + " is made of " + node;
    for (const fs::path& part : EntriesOf(folder)) {
        if (!fs::exists(part / "partition")) continue;
        const std::string user = UserOfDevice(part, FirstLineOf(part / "dev"));
        if (!user.empty()) return user;
    }
    return {};
}

std::uint64_t SizeOf(int file) {
    const off_t end = lseek(file, 0, SEEK_END);
    return end < 0 ? 0 : static_cast<std::uint64_t>(end);
}

bool Holds(int file, std::uint64_t offset, std::string_view mark) {
    std::string read(mark.size(), '\0');
    return posix::ReadAt(file, read.data(), read.size(), offset) && read == mark;
}

// RAID keeps its record at the beginning or, in two versions, near the end, where the beginning looks like any
// disk. The later of these says where it lies itself; a partition's record may lie there as well.
bool IsRaidMember(int file) {
    constexpr std::string_view kMagic("\xfc\x4e\x2b\xa9", 4);
    if (Holds(file, 0, kMagic) || Holds(file, 4096, kMagic)) return true;
    const std::uint64_t size = SizeOf(file);
    if (size < 128 * 1024) return false;
    const std::uint64_t sector = (size / 512 - 16) & ~std::uint64_t{7};
    std::uint64_t own = 0;
    if (Holds(file, sector * 512, kMagic) && posix::ReadAt(file, &own, sizeof own, sector * 512 + 144) &&
        own == sector)
        return true;
    return Holds(file, (size & ~std::uint64_t{0xFFFF}) - 0x10000, kMagic);
}

}  // namespace

std::string HostUserOf(int file) {
    struct stat info {};
    if (fstat(file, &info) != 0) return {};
    if (S_ISBLK(info.st_mode)) {
        const std::string number = MajorMinor(info.st_rdev);
        const std::string user = UserOfDevice(FolderOf(number), number);
        if (!user.empty()) return user;
    } else {
        const std::string place = MountOf(info, {});
        if (!place.empty()) return "it is mounted on " + place;
        if (IsSwap(info)) return "the host swaps to it";
    }
    return LoopOver(info);
}

std::string MembershipOf(int file) {
    for (unsigned sector = 0; sector < 4; ++sector)
        if (Holds(file, sector * 512, "LABELONE")) return "an LVM physical volume";
    if (Holds(file, 0, std::string_view("LUKS\xba\xbe", 6))) return "an encrypted (LUKS) device";
    return IsRaidMember(file) ? "a part of a RAID (md)" : "";
}

}  // namespace machine
