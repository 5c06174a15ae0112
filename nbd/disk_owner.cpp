#include "nbd/disk_owner.h"
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <fcntl.h>
#include <unistd.h>

namespace nbd {
namespace {

std::string ReadIdentity(const std::string& folder) {
    std::ifstream file(folder + "/" + kIdentityFile);
    std::string identity;
    std::getline(file, identity);
    return identity;
}

std::string NewIdentity() {
    std::random_device random;
    std::string identity;
    for (int i = 0; i < 32; ++i) identity += "0123456789abcdef"[random() % 16];
    return identity;
}

bool IsSameFolder(const std::string& one, const std::string& other) {
    std::error_code ignored;
    return one == other || std::filesystem::equivalent(one, other, ignored);
}

}  // namespace

std::string IdentityOf(const MachineFolder& folder) {
    std::string identity = ReadIdentity(folder.path);
    if (!identity.empty()) return identity;
    identity = NewIdentity();
    std::ofstream file(folder.File(kIdentityFile));
    file << identity << '\n';
    file.close();
    if (!file) throw Error("cannot write " + folder.File(kIdentityFile) + ": " + std::strerror(errno));
    return identity;
}

std::optional<MachineFolder> FindMachine(const DiskMark& mark) {
    if (ReadIdentity(mark.folder) != mark.machine) return std::nullopt;
    try {
        return MachineFolder::Read(mark.folder);
    } catch (const Error&) {
        return std::nullopt;
    }
}

std::optional<DiskMark> OtherOwner(const MachineFolder& folder, const FolderDisk& disk) {
    // A copy of a folder has copies of what lies in it.
    if (folder.IsInside(disk)) return std::nullopt;
    std::optional<DiskMark> mark = ReadMark(folder.DiskPath(disk));
    if (!mark) return std::nullopt;
    const bool own = mark->machine == IdentityOf(folder);
    if (own && (IsSameFolder(mark->folder, folder.path) || !FindMachine(*mark))) return std::nullopt;
    return mark;
}

void RequireNobodys(const std::string& disk) {
    const std::optional<DiskMark> mark = ReadMark(disk);
    if (!mark) return;
    throw Error("disk " + disk + " belongs to the machine in " + mark->folder +
                (FindMachine(*mark) ? "" : ", which is not there any more") +
                "; kvrhost adopt with --disk takes it over");
}

void RequireOwn(const MachineFolder& folder) {
    for (const FolderDisk& disk : folder.disks) {
        const std::optional<DiskMark> other = OtherOwner(folder, disk);
        if (!other) continue;
        const bool copy = other->machine == IdentityOf(folder);
        throw Error("disk " + disk.path + " belongs to the machine in " + other->folder +
                    (copy ? ", of which this one is a copy" : "") + "; kvrhost adopt takes it over");
    }
}

void MarkDisks(const MachineFolder& folder) {
    const DiskMark mark{IdentityOf(folder), folder.path};
    for (const FolderDisk& disk : folder.disks) {
        const std::optional<DiskMark> before = ReadMark(folder.DiskPath(disk));
        const bool same = before && before->machine == mark.machine && before->folder == mark.folder;
        if (!same) WriteMark(folder.DiskPath(disk), mark);
    }
}

void ReleaseDisks(const MachineFolder& folder) {
    const std::string identity = ReadIdentity(folder.path);
    for (const FolderDisk& disk : folder.disks) {
        try {
            const std::optional<DiskMark> mark = ReadMark(folder.DiskPath(disk));
            const bool own = mark && mark->machine == identity && IsSameFolder(mark->folder, folder.path);
            if (own) EraseMark(folder.DiskPath(disk));
        } catch (const Error&) {
            continue;  // a disk that is gone has nobody who asks
        }
    }
}

}  // namespace nbd
