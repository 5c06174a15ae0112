// The file systems that volumes are made with, mounted with and asked for; the numbers stand in the control
// socket's records.
#pragma once
#include <cstdint>

enum class FileSystemKind : std::uint32_t {
    None = 0,  // the volume is raw
    Ntfs = 1,
    Ext = 2,    // ext2, ext3 or ext4
    Other = 3,  // one that is neither
};
