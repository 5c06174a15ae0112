// The copy of the user's disk that the proof is played on.
#pragma once
#include <cstdint>
#include <string>
#include <vector>
#include "tool/prove/prove.h"

namespace tool {

struct PreparedCopy {
    std::vector<std::string> did;          // for the log
    std::uint64_t offset = 0, length = 0;  // of the volume of Windows, bytes on the disk
    bool efi = false;
};

// Copies the image to `copy` and puts the driver, its tool and the program of the proof into it. Throws Error;
// there is no copy then.
PreparedCopy PrepareCopy(const ProveOptions& options, const std::string& copy);

}  // namespace tool
