// New machine folders.
#pragma once
#include <cstdint>
#include <string>
#include <vector>
#include "formats/file_system_kind.h"
#include "machine/partition/partition_table.h"
#include "nbd/machine_folder.h"

namespace nbd {

struct NewMachine {
    std::string path;                 // of the folder, which must be missing or empty
    std::vector<std::string> images;  // taken in place; none: the machine gets a disk of its own
    std::uint32_t sectorBytes = 0;    // of the images: 512, 4096, or 0 to be found out
    bool takesOver = false;           // also images that belong to another machine
    // The disk of its own:
    std::uint64_t size = 0;  // bytes
    machine::TableKind layout = machine::TableKind::Gpt;
    FileSystemKind fileSystem = FileSystemKind::Ntfs;  // Ext: ext4; None: its volumes stay raw
    unsigned volumes = 1;
};

// Makes the folder. Throws Error; then no image was changed and nothing of the folder is left. What the images
// hold that their user should know, a sentence each.
std::vector<std::string> MakeMachine(const NewMachine& machine);

}  // namespace nbd
