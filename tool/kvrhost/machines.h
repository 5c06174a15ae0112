// The machines of this host: where they are, how each is, and the end of one.
#pragma once
#include <string>
#include <vector>

namespace tool {

// Where machines are looked for when nobody says: what KVR_MACHINES names, with ":" between, else this folder.
inline constexpr char kMachinesPlace[] = "/var/lib/kvr";

struct MachinesOptions {
    std::vector<std::string> places;  // each a machine's folder or a folder of such; none: as above
    bool json = false;
};

// Each returns an exit code and throws nbd::Error or tool::Error with a sentence for the user.
// A line for each machine. 0, also when there is none.
int ListMachines(const MachinesOptions& options);
// Each machine with its disks and what is not as configured; kExitNotAsConfigured where there is such a thing.
int ShowMachines(const MachinesOptions& options);

struct DeleteOptions {
    std::string folder;
    bool yes = false;  // nobody is asked
};

// Says what goes and what stays, asks at a terminal, and deletes what kvrhost and the server made: never a disk
// that was taken in place, and no file that is somebody's else. Refuses a machine that is being served.
int DeleteMachine(const DeleteOptions& options);

}  // namespace tool
