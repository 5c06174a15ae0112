// Whose sectors lie at a place of a volume.
#pragma once
#include "inspect/file_table.h"

namespace inspect {

struct Owned {
    Extent place;
    std::vector<std::string> owners;  // paths, or what else it is in words; never empty
};

// For each place, in its order. `kind`: the file system that the volume had when all was well. Throws nothing:
// of what cannot be read any more it says so.
std::vector<Owned> OwnersOf(VolumeView& view, const std::vector<Extent>& places, FileSystemKind kind);

}  // namespace inspect
