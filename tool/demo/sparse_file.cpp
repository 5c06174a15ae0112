#include "tool/demo/sparse_file.h"
#include <algorithm>
#include <cstring>
#include <vector>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include "posix/file_io.h"
#include "tool/error.h"

namespace tool {
namespace {

constexpr std::size_t kCopyStep = 1024 * 1024;

bool IsZero(const std::vector<char>& data, std::size_t length) {
    return data[0] == 0 && std::memcmp(data.data(), data.data() + 1, length - 1) == 0;
}

// Copies the data of [offset, offset + length) of `from` to the start of `to`, which is as long already.
bool CopyData(int from, int to, std::uint64_t offset, std::uint64_t length) {
    std::vector<char> part(kCopyStep);
    const auto end = static_cast<off_t>(offset + length);
    off_t at = lseek(from, static_cast<off_t>(offset), SEEK_DATA);
    for (; at >= 0 && at < end; at = lseek(from, at, SEEK_DATA)) {
        const off_t hole = std::min(lseek(from, at, SEEK_HOLE), end);
        while (at < hole) {
            const auto step = static_cast<std::size_t>(std::min<off_t>(hole - at, kCopyStep));
            const auto place = static_cast<std::uint64_t>(at);
            if (!posix::ReadAt(from, part.data(), step, place)) return false;
            if (!IsZero(part, step) && !posix::WriteAt(to, part.data(), step, place - offset)) return false;
            at += static_cast<off_t>(step);
        }
    }
    return at >= end || errno == ENXIO;  // ENXIO: nothing but a hole is left
}

}  // namespace

void CopySparse(const std::string& from, const std::string& to) {
    const posix::File source(open(from.c_str(), O_RDONLY | O_CLOEXEC));
    if (!source.IsOpen()) throw Error("cannot read " + from + ": " + std::strerror(errno));
    const posix::File target(open(to.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    const off_t size = lseek(source.Get(), 0, SEEK_END);
    if (!target.IsOpen() || size < 0) throw Error("cannot copy " + from + ": " + std::strerror(errno));
    if (ioctl(target.Get(), FICLONE, source.Get()) == 0) return;
    if (ftruncate(target.Get(), size) != 0 ||
        !CopyData(source.Get(), target.Get(), 0, static_cast<std::uint64_t>(size)))
        throw Error("cannot copy " + from + ": " + std::strerror(errno));
}

void ExtractSparse(const std::string& from, std::uint64_t offset, std::uint64_t length, const std::string& to) {
    const posix::File source(open(from.c_str(), O_RDONLY | O_CLOEXEC));
    const posix::File target(open(to.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!source.IsOpen() || !target.IsOpen() || ftruncate(target.Get(), static_cast<off_t>(length)) != 0 ||
        !CopyData(source.Get(), target.Get(), offset, length))
        throw Error("cannot copy a volume out of " + from + ": " + std::strerror(errno));
}

std::uint64_t AllocatedBytes(const std::string& path) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0) throw Error("cannot read " + path + ": " + std::strerror(errno));
    return static_cast<std::uint64_t>(info.st_blocks) * 512;
}

}  // namespace tool
