// Whether an image, a device or a remote disk that somebody brings can be a disk of a machine. Looking changes
// nothing.
#pragma once
#include <string>
#include "nbd/machine_folder.h"

namespace nbd {

inline constexpr std::uint64_t kLeastDisk = 1024 * 1024;  // bytes

// The disk that the image makes, with its absolute path or its URI. Throws Error with one sentence when the
// file is missing, may not be written, is in use, is too small, has another format than raw, or holds neither a
// partition table nor a file system. `sectorBytes`: 512, 4096, or 0 to be found out by what the image holds.
FolderDisk CheckImage(const std::string& path, std::uint32_t sectorBytes = 0);

}  // namespace nbd
