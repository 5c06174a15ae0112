#include "nbd/machine_folder.h"
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <fcntl.h>
#include <sys/file.h>
#include "machine/disk/remote_disk.h"

namespace nbd {
namespace {

constexpr char kHead[] = "# The disks of a hosted machine: disk SECTOR-BYTES PATH";

FolderDisk ParseDisk(const std::string& line, const std::string& where) {
    std::istringstream words(line);
    std::string kind;
    FolderDisk disk;
    words >> kind >> disk.sectorBytes >> std::ws;
    std::getline(words, disk.path);
    const bool sound =
        kind == "disk" && !disk.path.empty() && (disk.sectorBytes == 512 || disk.sectorBytes == 4096);
    if (!sound) throw Error(where + ": \"" + line + "\" is no line of the form \"disk SECTOR-BYTES PATH\"");
    return disk;
}

}  // namespace

MachineFolder MachineFolder::Read(const std::string& path) {
    MachineFolder folder;
    char* absolute = realpath(path.c_str(), nullptr);
    if (absolute == nullptr) throw Error("there is no machine in " + path + ": " + std::strerror(errno));
    folder.path = absolute;
    std::free(absolute);
    std::ifstream text(folder.File(kMachineFile));
    if (!text && errno == EACCES) throw Error("the machine in " + path + " belongs to another user");
    if (!text) throw Error("there is no machine in " + path + ": it has no file \"" + kMachineFile + "\"");
    folder.disks = ParseDisks(text, folder.File(kMachineFile));
    return folder;
}

std::vector<FolderDisk> MachineFolder::ParseDisks(std::istream& text, const std::string& where) {
    std::vector<FolderDisk> disks;
    std::string line;
    for (int number = 1; std::getline(text, line); ++number) {
        if (line.empty() || line[0] == '#') continue;
        disks.push_back(ParseDisk(line, where + " line " + std::to_string(number)));
    }
    if (disks.empty()) throw Error(where + " names no disk");
    if (disks.size() > kMostDisks)
        throw Error(where + " names more than " + std::to_string(kMostDisks) + " disks");
    return disks;
}

std::string MachineFolder::Text() const {
    std::string text = std::string(kHead) + '\n';
    for (const FolderDisk& disk : disks)
        text += "disk " + std::to_string(disk.sectorBytes) + ' ' + disk.path + '\n';
    return text;
}

void MachineFolder::Write() const {
    std::ofstream text(File(kMachineFile));
    text << Text();
    text.close();
    if (!text) throw Error("cannot write " + File(kMachineFile) + ": " + std::strerror(errno));
}

std::string MachineFolder::DiskPath(const FolderDisk& disk) const {
    return disk.path.starts_with('/') || machine::RemoteDisk::IsUri(disk.path) ? disk.path
                                                                               : path + "/" + disk.path;
}

FolderLock::FolderLock(const MachineFolder& folder)
    : file_(open(folder.File(kLockFile).c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600)) {
    if (!file_.IsOpen()) throw Error("cannot open " + folder.File(kLockFile) + ": " + std::strerror(errno));
    if (flock(file_.Get(), LOCK_EX | LOCK_NB) == 0) return;
    if (errno == EWOULDBLOCK) throw Error("the machine in " + folder.path + " is being served already");
    throw Error("cannot lock " + folder.File(kLockFile) + ": " + std::strerror(errno));
}

}  // namespace nbd
