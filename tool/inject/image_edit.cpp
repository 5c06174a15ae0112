#include "tool/inject/image_edit.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>
#include "tool/demo/sparse_file.h"
#include "tool/error.h"

namespace tool {
namespace {

constexpr std::size_t kSector = 512;

// The file beside the image: the head, for each block its number, what it held and what it gets, and the CRC-32
// of all that. One whose checksum is wrong was not finished, so the image had not been touched.
struct UndoHead {
    char magic[8];
    std::uint64_t imageBytes;
    std::uint64_t blocks;
};
static_assert(sizeof(UndoHead) == 24);
constexpr char kUndoMagic[9] = "KvrUndo1";

[[noreturn]] void Fail(const std::string& what) {
    throw Error(what + ": " + std::strerror(errno));
}

void Append(std::vector<std::uint8_t>& bytes, const void* data, std::size_t length) {
    const auto* first = static_cast<const std::uint8_t*>(data);
    bytes.insert(bytes.end(), first, first + length);
}

std::uint32_t Checksum(const std::uint8_t* bytes, std::size_t length) {
    return static_cast<std::uint32_t>(crc32_z(0, bytes, length));
}

void SyncFolderOf(const std::string& path) {
    const std::string folder = std::filesystem::absolute(path).parent_path();
    const posix::File opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened.IsOpen() || fsync(opened.Get()) != 0) Fail("cannot keep the folder of " + path);
}

posix::File OpenLocked(const std::string& path, int access) {
    posix::File file(open(path.c_str(), access | O_CLOEXEC));
    if (!file.IsOpen()) Fail("cannot open " + path);
    struct flock whole {};  // the kind of lock that virtual machine monitors ask for
    whole.l_type = access == O_RDWR ? F_WRLCK : F_RDLCK;
    whole.l_whence = SEEK_SET;
    if (flock(file.Get(), LOCK_EX | LOCK_NB) != 0 || fcntl(file.Get(), F_OFD_SETLK, &whole) != 0)
        throw Error(path + " is in use by another program");
    return file;
}

std::string UndoPath(const std::string& image) {
    return image + ".kvr-undo";
}

void RefuseFormat(const std::string& path, const std::uint8_t* first) {
    static constexpr const char* kMagics[][2] = {
        {"QFI\xFB", "qcow2"}, {"vhdxfile", "vhdx"}, {"KDMV", "vmdk"}, {"conectix", "vpc"}};
    for (const auto& [magic, format] : kMagics) {
        if (std::memcmp(first, magic, std::strlen(magic)) == 0)
            throw Error(path + " is no raw image; convert it: qemu-img convert -f " + format + " -O raw");
    }
}

}  // namespace

ImageEdit::ImageEdit(const std::string& path)
    : path_(path), undoPath_(UndoPath(path)), file_(OpenLocked(path, O_RDWR)) {
    const off_t end = lseek(file_.Get(), 0, SEEK_END);
    if (end < static_cast<off_t>(kBlock)) throw Error(path + " is too small for a disk");
    size_ = static_cast<std::uint64_t>(end);
    Undo();
    std::uint8_t first[kSector];
    Read(0, first, sizeof first);
    RefuseFormat(path, first);
}

void ImageEdit::CheckRange(std::uint64_t offset, std::size_t length) const {
    if (offset > size_ || length > size_ - offset) throw Error(path_ + " ends before what it should hold");
}

// Beyond the image's end a block is zeros.
ImageEdit::Block ImageEdit::ReadBlock(std::uint64_t number) const {
    Block block{};
    const std::uint64_t at = number * kBlock;
    const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(kBlock, size_ - at));
    if (!posix::ReadAt(file_.Get(), block.data(), length, at)) Fail("cannot read " + path_);
    return block;
}

void ImageEdit::Read(std::uint64_t offset, void* buffer, std::size_t length) const {
    CheckRange(offset, length);
    if (length == 0) return;
    auto* to = static_cast<std::uint8_t*>(buffer);
    if (!posix::ReadAt(file_.Get(), to, length, offset)) Fail("cannot read " + path_);
    const std::uint64_t end = offset + length;
    for (auto it = written_.lower_bound(offset / kBlock); it != written_.end() && it->first * kBlock < end;
         ++it) {
        const std::uint64_t base = it->first * kBlock;
        const std::uint64_t from = std::max(offset, base), to_end = std::min(end, base + kBlock);
        std::memcpy(to + (from - offset), it->second.data() + (from - base), to_end - from);
    }
}

void ImageEdit::Write(std::uint64_t offset, const void* buffer, std::size_t length) {
    CheckRange(offset, length);
    const auto* from = static_cast<const std::uint8_t*>(buffer);
    while (length != 0) {
        const std::uint64_t number = offset / kBlock;
        const auto inside = static_cast<std::size_t>(offset % kBlock);
        const std::size_t step = std::min(length, kBlock - inside);
        auto it = written_.find(number);
        if (it == written_.end()) it = written_.emplace(number, ReadBlock(number)).first;
        std::memcpy(it->second.data() + inside, from, step);
        offset += step, from += step, length -= step;
    }
}

ImageEdit::Blocks ImageEdit::Changed(Blocks& before) const {
    Blocks after;
    for (const auto& [number, block] : written_) {
        const Block old = ReadBlock(number);
        if (old == block) continue;
        before.emplace(number, old);
        after.emplace(number, block);
    }
    return after;
}

void ImageEdit::SaveUndo(const Blocks& before, const Blocks& after) const {
    UndoHead head{{}, size_, before.size()};
    std::memcpy(head.magic, kUndoMagic, sizeof head.magic);
    std::vector<std::uint8_t> bytes;
    bytes.reserve(sizeof head + before.size() * (8 + 2 * kBlock) + 4);
    Append(bytes, &head, sizeof head);
    for (const auto& [number, block] : before) {
        Append(bytes, &number, sizeof number);
        Append(bytes, block.data(), kBlock);
        Append(bytes, after.at(number).data(), kBlock);
    }
    const std::uint32_t checksum = Checksum(bytes.data(), bytes.size());
    Append(bytes, &checksum, sizeof checksum);
    const posix::File undo(open(undoPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!undo.IsOpen() || !posix::WriteAt(undo.Get(), bytes.data(), bytes.size(), 0) ||
        fsync(undo.Get()) != 0) {
        const int error = errno;
        unlink(undoPath_.c_str());
        errno = error;
        Fail("cannot write " + undoPath_);
    }
    SyncFolderOf(undoPath_);
}

void ImageEdit::WriteBlocks(const Blocks& blocks) {
    for (const auto& [number, block] : blocks) {
        const std::uint64_t at = number * kBlock;
        const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(kBlock, size_ - at));
        if (!posix::WriteAt(file_.Get(), block.data(), length, at)) Fail("cannot write " + path_);
    }
    if (fsync(file_.Get()) != 0) Fail("cannot write " + path_);
}

std::uint64_t ImageEdit::Commit() {
    Blocks before;
    const Blocks after = Changed(before);
    written_.clear();
    if (after.empty()) return 0;
    SaveUndo(before, after);
    try {
        WriteBlocks(after);
    } catch (const Error& error) {
        WriteBlocks(before);  // where this fails too, the file beside the image stays
        unlink(undoPath_.c_str());
        throw Error(std::string(error.what()) + "; the image is as it was");
    }
    if (unlink(undoPath_.c_str()) != 0) Fail("cannot remove " + undoPath_);
    return after.size() * kBlock;
}

void ImageEdit::Undo() {
    const posix::File undo(open(undoPath_.c_str(), O_RDONLY | O_CLOEXEC));
    if (!undo.IsOpen()) return;
    const auto length = static_cast<std::size_t>(std::max<off_t>(lseek(undo.Get(), 0, SEEK_END), 0));
    std::vector<std::uint8_t> bytes(length);
    if (!posix::ReadAt(undo.Get(), bytes.data(), length, 0)) Fail("cannot read " + undoPath_);
    UndoHead head{};
    std::uint32_t checksum = 0;
    constexpr std::size_t kEntry = 8 + 2 * kBlock;
    bool whole = length >= sizeof head + sizeof checksum;
    if (whole) {
        std::memcpy(&head, bytes.data(), sizeof head);
        std::memcpy(&checksum, &bytes[length - sizeof checksum], sizeof checksum);
        whole = std::memcmp(head.magic, kUndoMagic, sizeof head.magic) == 0 &&
                head.blocks == (length - sizeof head - sizeof checksum) / kEntry &&
                checksum == Checksum(bytes.data(), length - sizeof checksum);
    }
    Blocks before;
    for (std::uint64_t i = 0; whole && i < head.blocks; ++i) {
        const std::uint8_t* entry = &bytes[sizeof head + static_cast<std::size_t>(i) * kEntry];
        std::uint64_t number = 0;
        std::memcpy(&number, entry, sizeof number);
        if (head.imageBytes != size_ || number >= (size_ + kBlock - 1) / kBlock)
            throw Error(undoPath_ + " belongs to another image; take it away");
        std::memcpy(before[number].data(), entry + 8, kBlock);
        // A sector holds what it held or what the edit gave it, unless somebody has written to the image since.
        const Block now = ReadBlock(number);
        for (std::size_t at = 0; at < kBlock; at += kSector) {
            if (std::memcmp(&now[at], entry + 8 + at, kSector) != 0 &&
                std::memcmp(&now[at], entry + 8 + kBlock + at, kSector) != 0)
                throw Error("an edit of " + path_ +
                            " stopped half-way, and the image was written to since: restore it from a copy and "
                            "delete " +
                            undoPath_);
        }
    }
    if (whole) WriteBlocks(before);
    if (unlink(undoPath_.c_str()) != 0) Fail("cannot remove " + undoPath_);
    undone_ = whole;
}

void CopyImage(const std::string& from, const std::string& to) {
    const posix::File held = OpenLocked(from, access(from.c_str(), W_OK) == 0 ? O_RDWR : O_RDONLY);
    if (access(UndoPath(from).c_str(), F_OK) == 0)
        throw Error("an edit of " + from + " stopped half-way; the next one without --output puts it right");
    CopySparse(from, to);
}

}  // namespace tool
