// A disk in an image file or on a block device. The file is opened once, locked against other openers, and
// stays as sparse as the writes leave it; a device is nobody else's meanwhile.
#pragma once
#include <atomic>
#include <memory>
#include <string>
#include "machine/disk/host_disk.h"
#include "posix/file_io.h"

namespace machine {

class ImageDisk final : public HostDisk {
public:
    // As HostDisk::Open.
    static std::unique_ptr<ImageDisk> Open(const std::string& path, std::uint32_t sectorSize,
                                           std::string& error);
    // Creates a sparse image of `size` bytes; fails when `path` exists.
    static bool Create(const std::string& path, std::uint64_t size, std::string& error);

    std::uint64_t Size() const override { return size_; }
    std::uint32_t SectorSize() const override { return sectorSize_; }
    [[nodiscard]] NTSTATUS Read(std::uint64_t offset, void* buffer, std::size_t length) override;
    [[nodiscard]] NTSTATUS ReadAtOnce(std::uint64_t offset, void* buffer, std::size_t length) override;
    [[nodiscard]] NTSTATUS Write(std::uint64_t offset, const void* buffer, std::size_t length) override;
    [[nodiscard]] NTSTATUS WriteAside(std::uint64_t offset, const void* buffer, std::size_t length) override;
    [[nodiscard]] NTSTATUS Flush() override;
    const std::string& Path() const { return path_; }

private:
    ImageDisk(posix::File file, std::string path, std::uint64_t size, std::uint32_t sectorSize);

    NTSTATUS Result(bool done);
    bool LetGo(std::uint64_t offset, std::size_t length);

    posix::File file_;
    std::string path_;
    std::uint64_t size_;
    std::uint32_t sectorSize_;
    std::atomic<bool> tells_{true};  // the file system, whether a read would wait
};

}  // namespace machine
