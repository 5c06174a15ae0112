// What a machine that is powered off keeps of changes on a disk, as its registry and the disk's saved maps
// tell.
#pragma once
#include <vector>
#include "machine/disk/host_disk.h"
#include "nbd/machine_folder.h"

namespace nbd {

struct KeptChanges {
    std::u16string volume;               // the machine's name for it
    std::vector<std::uint8_t> identity;  // of the partition
    std::vector<std::uint8_t> place;     // of its map: the registry's value
    std::uint64_t bytes = 0;             // redirected
};

// One for each volume of the disk that has storage; `disk` is its index in the machine. Throws Error for a
// registry that cannot be read.
std::vector<KeptChanges> KeptChangesOn(const MachineFolder& folder, unsigned disk, machine::HostDisk& medium);
// The machine forgets where these maps are: its next boot finds no storage there. Throws Error.
void ForgetChanges(const MachineFolder& folder, const std::vector<KeptChanges>& changes);

}  // namespace nbd
