#include "tool/inject/work_folder.h"
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fcntl.h>
#include <unistd.h>
#include "machine/partition/subprocess.h"
#include "posix/file_io.h"
#include "tool/error.h"

namespace tool {
namespace {

std::string LastLine(const std::string& text) {
    const std::size_t end = text.find_last_not_of("\n\r ");
    if (end == std::string::npos) return "it says nothing";
    const std::size_t begin = text.find_last_of('\n', end);
    return text.substr(begin == std::string::npos ? 0 : begin + 1,
                       end - (begin == std::string::npos ? 0 : begin + 1) + 1);
}

[[noreturn]] void Fail(const std::string& what) {
    throw Error(what + ": " + std::strerror(errno));
}

}  // namespace

WorkFolder::WorkFolder() {
    const char* parent = std::getenv("TMPDIR");
    path_ = std::string(parent != nullptr && *parent != '\0' ? parent : "/tmp") + "/kvr-inject.XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) Fail("cannot make a folder to work in");
}

WorkFolder::~WorkFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::vector<std::uint8_t> ReadHostFile(const std::string& path) {
    const posix::File file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const off_t end = file.IsOpen() ? lseek(file.Get(), 0, SEEK_END) : -1;
    if (end < 0) Fail("cannot read " + path);
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(end));
    if (!posix::ReadAt(file.Get(), bytes.data(), bytes.size(), 0)) Fail("cannot read " + path);
    return bytes;
}

void WriteHostFile(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    const posix::File file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!file.IsOpen() || !posix::WriteAt(file.Get(), bytes.data(), bytes.size(), 0))
        Fail("cannot write " + path);
}

std::string RunHostTool(const std::string& tool, const std::string& package,
                        const std::vector<std::string>& arguments) {
    const machine::ToolResult result = machine::RunTool(tool, arguments);
    if (!result.started) throw Error("there is no " + tool + "; install the package " + package);
    if (result.exitCode != 0) throw Error(tool + " failed: " + LastLine(result.output));
    return result.output;
}

}  // namespace tool
