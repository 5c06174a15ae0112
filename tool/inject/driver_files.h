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

// Where a file for Windows lies: `given`, or when that is empty beside this program, where the package or where
// the build puts it. Throws Error, naming the option that says it, when it is in none of these places.
std::string FindWindowsFile(const std::string& given, const std::string& name, const std::string& option);

// Reads both, found so. Throws Error for what is not there, no image for 64-bit Windows, or without a version.
DriverFiles FindDriverFiles(const std::string& driver, const std::string& tool);

}  // namespace tool
