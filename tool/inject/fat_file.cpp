#include "tool/inject/fat_file.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include "posix/file_io.h"
#include "tool/error.h"
#include "tool/inject/work_folder.h"

namespace tool {
namespace {

constexpr std::size_t kPiece = 1024 * 1024;
constexpr char kPackage[] = "mtools";

// Calls `each` with the offset and the length of each piece of the volume.
template <class Each>
void ForPieces(std::uint64_t length, const Each& each) {
    for (std::uint64_t at = 0; at < length; at += kPiece)
        each(at, static_cast<std::size_t>(std::min<std::uint64_t>(kPiece, length - at)));
}

// The letters of the attributes that mattrib shows before the path: "  A  SHR    ::/path".
std::vector<std::string> AttributesOf(const std::string& shown) {
    std::vector<std::string> attributes;
    for (const char c : shown.substr(0, shown.find("::"))) {
        if (std::strchr("ASHR", c) != nullptr)
            attributes.push_back(std::string("+") + static_cast<char>(c | 0x20));
    }
    return attributes;
}

}  // namespace

FatFile::FatFile(ImageEdit& image, const DiskRange& range, const std::string& path)
    : image_(image), range_(range), path_("::/" + path) {
    std::replace(path_.begin(), path_.end(), '\\', '/');
}

void FatFile::CopyOut(const std::string& file) const {
    const posix::File copy(open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!copy.IsOpen() || ftruncate(copy.Get(), static_cast<off_t>(range_.length)) != 0)
        throw Error(std::string("no room for a copy of the boot volume: ") + std::strerror(errno));
    std::vector<std::uint8_t> piece(kPiece);
    ForPieces(range_.length, [&](std::uint64_t at, std::size_t length) {
        image_.Read(range_.offset + at, piece.data(), length);
        if (std::all_of(piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(length),
                        [](auto b) { return b == 0; }))
            return;
        if (!posix::WriteAt(copy.Get(), piece.data(), length, at))
            throw Error(std::string("no room for a copy of the boot volume: ") + std::strerror(errno));
    });
}

void FatFile::CopyBack(const std::string& file) const {
    const posix::File copy(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    std::vector<std::uint8_t> now(kPiece), before(kPiece);
    ForPieces(range_.length, [&](std::uint64_t at, std::size_t length) {
        image_.Read(range_.offset + at, before.data(), length);
        if (!copy.IsOpen() || !posix::ReadAt(copy.Get(), now.data(), length, at))
            throw Error("cannot read the copy of the boot volume");
        if (std::memcmp(now.data(), before.data(), length) != 0)
            image_.Write(range_.offset + at, now.data(), length);
    });
}

std::vector<std::uint8_t> FatFile::Read() const {
    const WorkFolder folder;
    CopyOut(folder.File("volume"));
    RunHostTool("mcopy", kPackage, {"-n", "-i", folder.File("volume"), path_, folder.File("file")});
    return ReadHostFile(folder.File("file"));
}

void FatFile::Write(const std::vector<std::uint8_t>& bytes) const {
    const WorkFolder folder;
    const std::string volume = folder.File("volume");
    CopyOut(volume);
    WriteHostFile(folder.File("file"), bytes);
    std::vector<std::string> attributes = AttributesOf(RunHostTool("mattrib", kPackage, {"-i", volume, path_}));
    RunHostTool("mattrib", kPackage, {"-i", volume, "-r", "-s", "-h", path_});
    RunHostTool("mcopy", kPackage, {"-o", "-i", volume, folder.File("file"), path_});
    attributes.insert(attributes.begin(), {"-i", volume});
    attributes.push_back(path_);
    RunHostTool("mattrib", kPackage, attributes);
    CopyBack(volume);
}

}  // namespace tool
