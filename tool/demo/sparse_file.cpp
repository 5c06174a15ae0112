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

constexpr std::uint64_t kPiece = 64 * 1024;

// The first byte of [at, end) that is no hole, or `end`.
std::uint64_t SkipHole(int file, std::uint64_t at, std::uint64_t end) {
    const off_t data = lseek(file, static_cast<off_t>(at), SEEK_DATA);
    if (data < 0) return errno == ENXIO ? end : at;  // a device that knows no holes
    return std::min(static_cast<std::uint64_t>(data), end);
}

bool IsZero(std::span<const char> data) {
    return data[0] == 0 && std::memcmp(data.data(), data.data() + 1, data.size() - 1) == 0;
}

// Copies the range to the start of `to`, which is new.
void CopyData(const posix::File& from, const posix::File& to, std::uint64_t offset, std::uint64_t length,
              const std::string& what) {
    if (!to.IsOpen() || ftruncate(to.Get(), static_cast<off_t>(length)) != 0)
        throw Error(what + ": " + std::strerror(errno));
    ForEachPiece(from.Get(), offset, offset, offset + length,
                 [&](std::uint64_t at, std::span<const char> piece) {
                     if (!posix::WriteAt(to.Get(), piece.data(), piece.size(), at - offset))
                         throw Error(what + ": " + std::strerror(errno));
                 });
}

posix::File OpenToRead(const std::string& path) {
    posix::File file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) throw Error("cannot read " + path + ": " + std::strerror(errno));
    return file;
}

}  // namespace

void ForEachPiece(int file, std::uint64_t origin, std::uint64_t begin, std::uint64_t end,
                  const std::function<void(std::uint64_t at, std::span<const char> piece)>& use) {
    std::vector<char> data(kPiece);
    for (std::uint64_t at = begin; at < end;) {
        const std::uint64_t next = SkipHole(file, at, end);
        if (next >= end) return;
        at = std::max(origin + (next - origin) / kPiece * kPiece, at);
        const std::uint64_t stop = std::min(origin + ((at - origin) / kPiece + 1) * kPiece, end);
        const std::span piece(data.data(), static_cast<std::size_t>(stop - at));
        if (!posix::ReadAt(file, piece.data(), piece.size(), at))
            throw Error(std::string("cannot read the disk image: ") + std::strerror(errno));
        if (!IsZero(piece)) use(at, piece);
        at = stop;
    }
}

void CopySparse(const std::string& from, const std::string& to) {
    const posix::File source = OpenToRead(from);
    const posix::File target(open(to.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (target.IsOpen() && ioctl(target.Get(), FICLONE, source.Get()) == 0) return;
    const off_t size = lseek(source.Get(), 0, SEEK_END);
    if (size < 0) throw Error("cannot copy " + from + ": " + std::strerror(errno));
    CopyData(source, target, 0, static_cast<std::uint64_t>(size), "cannot copy " + from);
}

void ExtractSparse(const std::string& from, std::uint64_t offset, std::uint64_t length, const std::string& to) {
    const posix::File target(open(to.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    CopyData(OpenToRead(from), target, offset, length, "cannot copy a volume out of " + from);
}

std::uint64_t AllocatedBytes(const std::string& path) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0) throw Error("cannot read " + path + ": " + std::strerror(errno));
    return static_cast<std::uint64_t>(info.st_blocks) * 512;
}

}  // namespace tool
