#include "nbd/disk_mark.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>
#include "machine/partition/partition_table.h"
#include "posix/file_io.h"

namespace nbd {
namespace {

namespace fs = std::filesystem;

constexpr char kAttribute[] = "user.kvr.machine";
constexpr std::size_t kMostMark = 8192;  // bytes

[[noreturn]] void Fail(const std::string& disk, const std::string& why) {
    throw Error("cannot tell whose disk " + disk + " is: " + why);
}

// ---- where a mark lies -----------------------------------------------------------------------------------

std::string FirstLineOf(const fs::path& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

std::string StateFolder() {
    const char* state = std::getenv("XDG_STATE_HOME");
    if (state != nullptr && state[0] == '/') return std::string(state) + "/kvr/disks";
    if (geteuid() == 0) return "/var/lib/kvr-disks";
    const char* home = std::getenv("HOME");
    if (home == nullptr || home[0] != '/')
        throw Error("HOME names no folder, so there is none for marks on disks");
    return std::string(home) + "/.local/state/kvr/disks";
}

bool IsBlockDevice(const std::string& disk) {
    struct stat info {};
    return stat(disk.c_str(), &info) == 0 && S_ISBLK(info.st_mode);
}

fs::path FolderOfDevice(const std::string& device) {
    struct stat info {};
    if (stat(device.c_str(), &info) != 0) Fail(device, std::strerror(errno));
    std::error_code error;
    const std::string number = std::to_string(major(info.st_rdev)) + ":" + std::to_string(minor(info.st_rdev));
    fs::path folder = fs::canonical("/sys/dev/block/" + number, error);
    if (error) Fail(device, "/sys/dev/block/" + number + ": " + error.message());
    return folder;
}

// What stays the device's own when its name changes, as far as it has anything of that kind.
std::string IdentityOfDevice(const fs::path& folder) {
    const std::string part = FirstLineOf(folder / "partition");
    if (!part.empty()) return IdentityOfDevice(folder.parent_path()) + " partition " + part;
    for (const char* file : {"dm/uuid", "md/uuid", "wwid", "device/wwid", "serial", "device/serial"}) {
        const std::string value = FirstLineOf(folder / file);
        if (!value.empty()) return std::string(file) + " " + value;
    }
    const fs::path remote = folder / "device";
    const std::string image = FirstLineOf(remote / "name");
    if (!image.empty() && fs::exists(remote / "pool"))
        return "rbd " + FirstLineOf(remote / "pool") + "/" + image;
    return "name " + folder.filename().string();
}

// The place of a mark: of a file's own, its attribute and the file beside it; else a file of the state folder,
// whose first line says for which disk it is.
struct Place {
    std::string image;  // empty: only the file
    std::string file;
    std::string identity;
};

Place PlaceOf(const std::string& disk) {
    if (!disk.starts_with('/') || IsBlockDevice(disk)) {
        std::string identity = disk;
        if (disk.starts_with('/')) {
            const fs::path folder = FolderOfDevice(disk);
            // A loop device is its file, whose mark other paths to it find as well; for who may see it.
            std::error_code unseen;
            const std::string backing = FirstLineOf(folder / "loop/backing_file");
            if (!backing.empty() && fs::exists(backing, unseen)) return PlaceOf(backing);
            identity = IdentityOfDevice(folder);
        }
        std::array<char, 16> name{};
        std::snprintf(name.data(), name.size(), "%08x", machine::Crc32(identity.data(), identity.size()));
        return {{}, StateFolder() + "/" + name.data(), identity};
    }
    const fs::path path(disk);
    return {disk, (path.parent_path() / ("." + path.filename().string() + ".kvr")).string(), {}};
}

// ---- its text: the identity and, behind a blank, the folder ----------------------------------------------

std::optional<DiskMark> Parse(const std::string& text) {
    const std::size_t blank = text.find(' ');
    if (blank == 0 || blank == text.npos) return std::nullopt;
    return DiskMark{text.substr(0, blank), text.substr(blank + 1)};
}

std::optional<DiskMark> ReadFile(const Place& place, const std::string& disk) {
    std::ifstream file(place.file);
    if (!file && access(place.file.c_str(), F_OK) != 0 && errno == ENOENT) return std::nullopt;
    std::string identity, text;
    std::getline(file, identity);
    std::getline(file, text);
    if (!file) Fail(disk, place.file + " cannot be read");
    // Another disk whose identity has the same checksum.
    if (identity != place.identity) return std::nullopt;
    return Parse(text);
}

void WriteFile(const Place& place, const std::string& disk, const std::string& text) {
    std::error_code error;
    if (place.image.empty()) {
        const mode_t before = umask(0077);  // a server's own lets nobody use a folder
        fs::create_directories(fs::path(place.file).parent_path(), error);
        umask(before);
    }
    const std::string draft = place.file + "." + std::to_string(getpid());
    std::ofstream file(draft);
    file << place.identity << '\n' << text << '\n';
    file.close();
    if (!file || rename(draft.c_str(), place.file.c_str()) != 0) {
        const int why = errno;
        unlink(draft.c_str());
        throw Error("cannot mark disk " + disk + " as a machine's: " + place.file + ": " + std::strerror(why));
    }
}

// Of a file system, or of a file on it: the mark is to lie beside the file.
bool HasNoAttributes(int error) {
    return error == ENOTSUP || error == ENOSYS || error == EPERM || error == EINVAL || error == ENOSPC ||
           error == EDQUOT || error == E2BIG;
}

}  // namespace

std::optional<DiskMark> ReadMark(const std::string& disk) {
    const Place place = PlaceOf(disk);
    if (!place.image.empty()) {
        std::string text(kMostMark, '\0');
        const ssize_t length = getxattr(place.image.c_str(), kAttribute, text.data(), text.size());
        if (length >= 0) return Parse(text.substr(0, static_cast<std::size_t>(length)));
        if (errno != ENODATA && !HasNoAttributes(errno)) Fail(disk, std::strerror(errno));
    }
    return ReadFile(place, disk);
}

void WriteMark(const std::string& disk, const DiskMark& mark) {
    const Place place = PlaceOf(disk);
    const std::string text = mark.machine + " " + mark.folder;
    if (!place.image.empty()) {
        if (setxattr(place.image.c_str(), kAttribute, text.data(), text.size(), 0) == 0) return;
        if (!HasNoAttributes(errno))
            throw Error("cannot mark disk " + disk + " as a machine's: " + std::strerror(errno));
    }
    WriteFile(place, disk, text);
}

void EraseMark(const std::string& disk) {
    const Place place = PlaceOf(disk);
    if (!place.image.empty()) removexattr(place.image.c_str(), kAttribute);
    unlink(place.file.c_str());
}

}  // namespace nbd
