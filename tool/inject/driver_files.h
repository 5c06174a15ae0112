// The two files that are put into a Windows, and what is known of them.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace tool {

struct DriverFiles {
    std::vector<std::uint8_t> driver;  // kvr64.sys
    std::vector<std::uint8_t> tool;    // kvrctl.exe
    std::string version;               // the driver's, four numbers
};

// Reads both; an empty path means the file beside this program, or where the build puts it. Throws Error for
// what is not there, no image for 64-bit Windows, or without a version.
DriverFiles FindDriverFiles(const std::string& driver, const std::string& tool);

}  // namespace tool
