// The folder of a hosted machine on the host:
//
//   machine       its disks, a text that a person can read: one line "disk SECTOR-BYTES PATH" for each
//   disk0.img     a disk of its own; disks that were taken in place lie elsewhere
//   system.img    the system disk: small, holds the configuration, is served to nobody
//   registry      the registry's flushed values
//   identity      what it is called on its disks' marks (disk_mark.h)
//   log           what the server and the driver said
//   lock          locked by the server that has the machine powered on
//   nbd.sock, control.sock   the sockets of a running server
#pragma once
#include <cstdint>
#include <istream>
#include <string>
#include <vector>
#include "nbd/error.h"
#include "posix/file_io.h"

namespace nbd {

struct FolderDisk {
    std::string path;  // absolute, relative to the folder, or a URI
    std::uint32_t sectorBytes = 512;
};

struct MachineFolder {
    std::string path;
    std::vector<FolderDisk> disks;

    // Reads the folder's text; the path is made absolute. Throws Error.
    static MachineFolder Read(const std::string& path);
    // Writes the text of a folder that has none yet. Throws Error.
    void Write() const;
    // That text, and its reverse; `where` names the file in what is thrown. Throws Error.
    std::string Text() const;
    static std::vector<FolderDisk> ParseDisks(std::istream& text, const std::string& where);

    std::string File(const char* name) const { return path + "/" + name; }
    std::string DiskPath(const FolderDisk& disk) const;
    // A disk of its own, which lies in the folder.
    bool IsInside(const FolderDisk& disk) const { return DiskPath(disk) != disk.path; }
};

inline constexpr char kMachineFile[] = "machine";
inline constexpr char kRegistryFile[] = "registry";
inline constexpr char kSystemImage[] = "system.img";
inline constexpr char kIdentityFile[] = "identity";
inline constexpr char kLogFile[] = "log";
inline constexpr char kLockFile[] = "lock";
inline constexpr char kNbdSocket[] = "nbd.sock";
inline constexpr std::size_t kMostDisks = 7;  // with as many volumes as a table holds, all have lower numbers
inline constexpr unsigned kSystemVolume = 1000;

// The right to have the machine powered on. It ends with the process at the latest, however that ends.
class FolderLock {
public:
    // Throws Error when another process has it.
    explicit FolderLock(const MachineFolder& folder);
    // Takes over a descriptor that holds it already, from the process that started this one.
    explicit FolderLock(int descriptor) : file_(descriptor) {}
    int Descriptor() const { return file_.Get(); }

private:
    posix::File file_;
};

}  // namespace nbd
