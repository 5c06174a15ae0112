// What keeps an ext file system from being changed, or from being used at all.
#pragma once
#include <string>
#include "machine/files/volume_io.h"

struct struct_ext2_filsys;

namespace machine {

// Why the opened file system must not be used on this volume, one line; empty when it may.
std::string WhyNotUsable(const struct_ext2_filsys* library, const VolumeIo& io);
// Why it must not be changed, one line; empty when it may.
std::string WhyReadOnly(const struct_ext2_filsys* library);

}  // namespace machine
