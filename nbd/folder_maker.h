// New machine folders.
#pragma once
#include <cstdint>
#include <string>
#include <vector>
#include "machine/partition/partition_table.h"
#include "nbd/machine_folder.h"

namespace nbd {

enum class NewFileSystem { None, Ntfs, Ext4 };

struct NewMachine {
    std::string path;                 // of the folder, which must be missing or empty
    std::vector<std::string> images;  // taken in place; none: the machine gets a disk of its own
    // The disk of its own:
    std::uint64_t size = 0;  // bytes
    machine::TableKind layout = machine::TableKind::Gpt;
    NewFileSystem fileSystem = NewFileSystem::Ntfs;
    unsigned volumes = 1;
};

// Makes the folder. Throws Error; then no image was changed and nothing of the folder is left.
void MakeMachine(const NewMachine& machine);

}  // namespace nbd
