#include "tool/inject/driver_files.h"
#include <algorithm>
#include <cstring>
#include <filesystem>
#include "machine/partition/partition_format.h"
#include "tool/error.h"
#include "tool/inject/work_folder.h"

namespace tool {
namespace {

using machine::table::Get16;
using machine::table::Get32;

constexpr std::size_t kPeOffset = 60;
constexpr std::uint16_t kMachineAmd64 = 0x8664;

// Begins the fixed part of a version resource; the file's version is its third and fourth word, the high halves
// first.
constexpr std::uint8_t kVersionMark[] = {0xBD, 0x04, 0xEF, 0xFE, 0, 0, 1, 0};
constexpr std::size_t kVersionBytes = 16;

std::vector<std::uint8_t> ReadImage(const std::string& path) {
    std::vector<std::uint8_t> image = ReadHostFile(path);
    const bool any = image.size() > kPeOffset + 4 && image[0] == 'M' && image[1] == 'Z';
    const std::size_t at = any ? Get32(&image[kPeOffset]) : 0;
    if (!any || at + 6 > image.size() || std::memcmp(&image[at], "PE\0\0", 4) != 0 ||
        Get16(&image[at + 4]) != kMachineAmd64)
        throw Error(path + " is no program for 64-bit Windows");
    return image;
}

std::string VersionOf(const std::vector<std::uint8_t>& image, const std::string& path) {
    const auto mark = std::search(image.begin(), image.end(), std::begin(kVersionMark), std::end(kVersionMark));
    if (image.end() - mark < static_cast<std::ptrdiff_t>(kVersionBytes)) throw Error(path + " has no version");
    const std::uint8_t* fixed = &*mark;
    std::string version;
    for (const std::size_t at : {10u, 8u, 14u, 12u})
        version += (version.empty() ? "" : ".") + std::to_string(Get16(fixed + at));
    return version;
}

}  // namespace

std::string FindWindowsFile(const std::string& given, const std::string& name, const std::string& option) {
    if (!given.empty()) return given;
    std::error_code ignored;
    const std::filesystem::path here = std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path();
    const std::filesystem::path build = here.parent_path().parent_path();
    for (const std::filesystem::path& folder :
         {here, here.parent_path() / "lib/kvr/windows", build / "windows", build / "windows-tool"}) {
        if (std::filesystem::exists(folder / name, ignored)) return folder / name;
    }
    throw Error("there is no " + name + " beside this program; build it or say " + option + " FILE");
}

DriverFiles FindDriverFiles(const std::string& driver, const std::string& tool) {
    const std::string path = FindWindowsFile(driver, "kvr64.sys", "--driver");
    DriverFiles files{ReadImage(path), ReadImage(FindWindowsFile(tool, "kvrctl.exe", "--tool")), ""};
    files.version = VersionOf(files.driver, path);
    return files;
}

}  // namespace tool
