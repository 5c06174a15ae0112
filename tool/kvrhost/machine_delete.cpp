// delete: what goes, what stays, and a yes.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <unistd.h>
#include "formats/control_wire.h"
#include "nbd/disk_owner.h"
#include "nbd/machine_folder.h"
#include "tool/error.h"
#include "tool/kvrhost/machines.h"

namespace tool {
namespace {

// In the order in which they go: until its disks are gone the folder stays a machine's, so that what could not
// be finished can be asked for again.
std::vector<std::string> OwnFiles(const nbd::MachineFolder& folder) {
    std::vector<std::string> names;
    for (const nbd::FolderDisk& disk : folder.disks) {
        if (disk.path.find('/') == std::string::npos)
            names.insert(names.end(), {disk.path, "." + disk.path + ".kvr"});
    }
    for (const char* name :
         {nbd::kIdentityFile, nbd::kSystemImage, nbd::kRegistryFile, "registry.new", nbd::kLogFile, "log.old",
          "seal", "seal.new", nbd::kNbdSocket, wire::kSocketName, nbd::kMachineFile, nbd::kLockFile})
        names.emplace_back(name);
    return names;
}

void PrintWhatGoes(const nbd::MachineFolder& folder, const std::vector<std::string>& own) {
    std::printf("The machine in %s goes, with what was written on its own disks:\n", folder.path.c_str());
    std::error_code error;
    for (const std::string& name : own) {
        if (std::filesystem::is_regular_file(folder.path + "/" + name, error))
            std::printf("  %s\n", name.c_str());
    }
    for (const nbd::FolderDisk& disk : folder.disks) {
        if (disk.path.find('/') != std::string::npos)
            std::printf("%s stays; changes that were kept on it and not merged are given up.\n",
                        folder.DiskPath(disk).c_str());
    }
    for (const auto& entry : std::filesystem::directory_iterator(folder.path, error)) {
        if (std::find(own.begin(), own.end(), entry.path().filename().string()) == own.end())
            std::printf("%s stays; it is none of the machine's files.\n", entry.path().c_str());
    }
    std::fflush(stdout);
}

bool SaysYes() {
    if (isatty(STDIN_FILENO) == 0)
        throw Error("nothing is deleted: say --yes where there is no terminal to ask at");
    std::printf("Delete it? [yes/no] ");
    std::fflush(stdout);
    std::string answer;
    return std::getline(std::cin, answer) && answer == "yes";
}

void Remove(const nbd::MachineFolder& folder, const std::vector<std::string>& own) {
    for (const std::string& name : own) {
        if (unlink(folder.File(name.c_str()).c_str()) == 0 || errno == ENOENT) continue;
        throw Error("cannot delete " + folder.File(name.c_str()) + ": " + std::strerror(errno) +
                    "; what comes behind it in the list is still there");
    }
    if (rmdir(folder.path.c_str()) != 0 && errno != ENOTEMPTY)
        throw Error("the machine is deleted, but not its empty folder " + folder.path + ": " +
                    std::strerror(errno));
}

}  // namespace

int DeleteMachine(const DeleteOptions& options) {
    const nbd::MachineFolder folder = nbd::MachineFolder::Read(options.folder);
    const nbd::FolderLock lock(folder);  // held to the end, so that nobody powers it on meanwhile
    const std::vector<std::string> own = OwnFiles(folder);
    PrintWhatGoes(folder, own);
    if (!options.yes && !SaysYes()) throw Error("nothing is deleted");
    nbd::ReleaseDisks(folder);
    Remove(folder, own);
    return 0;
}

}  // namespace tool
