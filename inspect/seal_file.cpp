#include "inspect/seal_file.h"
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace inspect {
namespace {

constexpr char kMagic[] = {'K', 'V', 'R', 'S', 'E', 'A', 'L', '1'};

[[noreturn]] void Fail(const std::string& what, const std::string& path) {
    throw Error("cannot " + what + " " + path + ": " + std::strerror(errno));
}

class Writer {
public:
    explicit Writer(const std::string& path) : path_(path) {
        unlink(path.c_str());  // of a run that did not end
        file_ = posix::File(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (!file_.IsOpen()) Fail("make", path);
    }
    void Put(const void* data, std::size_t length) {
        if (length == 0) return;
        hash_.Add(data, length);
        Write(data, length);
    }
    void Finish() {
        const Digest digest = hash_.Final();
        Write(digest.data(), digest.size());
        if (fsync(file_.Get()) != 0) Fail("write", path_);
    }

private:
    void Write(const void* data, std::size_t length) {
        if (!posix::WriteAt(file_.Get(), data, length, at_)) Fail("write", path_);
        at_ += length;
    }

    std::string path_;
    posix::File file_;
    Sha256 hash_;
    std::uint64_t at_ = 0;
};

class Reader {
public:
    explicit Reader(const std::string& path) : path_(path), file_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        struct stat info {};
        if (!file_.IsOpen() || fstat(file_.Get(), &info) != 0) Fail("read", path);
        left_ = static_cast<std::uint64_t>(info.st_size);
        if (left_ < sizeof(Digest)) Damaged();
        left_ -= sizeof(Digest);
    }
    void Get(void* data, std::uint64_t length) {
        if (length > left_) Damaged();
        if (length == 0) return;
        Read(data, length);
        hash_.Add(data, length);
        left_ -= length;
    }
    // As many elements as the file still has room for.
    template <class Element>
    void GetAll(std::vector<Element>& elements, std::uint64_t count) {
        if (count > left_ / sizeof(Element)) Damaged();
        elements.resize(count);
        Get(elements.data(), count * sizeof(Element));
    }
    void Finish() {
        Digest stored;
        if (left_ != 0) Damaged();
        Read(stored.data(), stored.size());
        if (stored != hash_.Final()) Damaged();
    }
    [[noreturn]] void Damaged() const { throw Error(path_ + " is damaged: it is no seal"); }

private:
    void Read(void* data, std::uint64_t length) {
        if (!posix::ReadAt(file_.Get(), data, length, at_)) Fail("read", path_);
        at_ += length;
    }

    std::string path_;
    posix::File file_;
    Sha256 hash_;
    std::uint64_t at_ = 0, left_ = 0;
};

}  // namespace

std::vector<PartSeal> LoadSeals(const std::string& path) {
    Reader reader(path);
    SealFileHeader header;
    reader.Get(&header, sizeof header);
    if (std::memcmp(header.magic, kMagic, sizeof kMagic) != 0) reader.Damaged();
    std::vector<PartSeal> parts;
    for (std::uint64_t i = 0; i < header.parts; ++i) {
        SealFilePart stored;
        reader.Get(&stored, sizeof stored);
        PartSeal part;
        part.disk = stored.disk, part.volume = stored.volume;
        part.offset = stored.offset, part.length = stored.length;
        part.takenAt = stored.takenAt;
        part.fileSystem = static_cast<FileSystemKind>(stored.fileSystem);
        part.merged = stored.merged != 0;
        reader.GetAll(part.leftOut, stored.leftOut);
        reader.GetAll(part.groups, stored.groups);
        parts.push_back(std::move(part));
    }
    reader.Finish();
    return parts;
}

void SaveSeals(const std::string& path, const std::vector<PartSeal>& parts) {
    const std::string made = path + ".new";
    Writer writer(made);
    SealFileHeader header{{}, parts.size()};
    std::memcpy(header.magic, kMagic, sizeof kMagic);
    writer.Put(&header, sizeof header);
    for (const PartSeal& part : parts) {
        const SealFilePart stored{part.disk,
                                  part.volume,
                                  part.offset,
                                  part.length,
                                  part.takenAt,
                                  static_cast<std::uint32_t>(part.fileSystem),
                                  part.merged ? 1u : 0u,
                                  part.leftOut.size(),
                                  part.groups.size()};
        writer.Put(&stored, sizeof stored);
        writer.Put(part.leftOut.data(), part.leftOut.size() * sizeof(Extent));
        writer.Put(part.groups.data(), part.groups.size() * sizeof(GroupSeal));
    }
    writer.Finish();
    if (std::rename(made.c_str(), path.c_str()) != 0) Fail("replace", path);
    const posix::File folder(
        open(path.substr(0, path.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Some file systems cannot sync a folder; the rename is then as durable as they make it.
    if (folder.IsOpen()) (void)fsync(folder.Get());
}

}  // namespace inspect
