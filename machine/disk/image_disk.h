// A disk in an image file or on a block device. The file is opened once, locked against other openers, and
// stays as sparse as the writes leave it; a device is nobody else's meanwhile.
#pragma once
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include "machine/disk/disk.h"
#include "posix/file_io.h"

namespace machine {

class ImageDisk final : public Disk {
public:
    // Opens `path` for reading and writing under an exclusive lock that lasts as long as the object.
    // Null with one clear sentence in `error` when it is missing, not writable, in use (host_use.h), empty or
    // not a whole number of sectors.
    static std::unique_ptr<ImageDisk> Open(const std::string& path, std::uint32_t sectorSize,
                                           std::string& error);
    // Creates a sparse image of `size` bytes; fails when `path` exists.
    static bool Create(const std::string& path, std::uint64_t size, std::string& error);

    std::uint64_t Size() const override { return size_; }
    std::uint32_t SectorSize() const override { return sectorSize_; }
    [[nodiscard]] NTSTATUS Read(std::uint64_t offset, void* buffer, std::size_t length) override;
    [[nodiscard]] NTSTATUS Write(std::uint64_t offset, const void* buffer, std::size_t length) override;
    [[nodiscard]] NTSTATUS Flush() override;
    const std::string& Path() const { return path_; }
    // A write or flush failed within the last ten seconds since the host had no room for the image. To the
    // machine such a failure is one of the disk like any other; whoever serves the disk may know better.
    bool LacksRoom() const;
    // The host's errno of the last write or flush that failed since ForgetFailure, or 0.
    int Failure() const { return failure_; }
    void ForgetFailure() { failure_ = 0; }

private:
    ImageDisk(posix::File file, std::string path, std::uint64_t size, std::uint32_t sectorSize);

    NTSTATUS Result(bool done);

    posix::File file_;
    std::atomic<std::chrono::steady_clock::rep> lackedRoomAt_{0};  // 0: never
    std::atomic<int> failure_{0};
    std::string path_;
    std::uint64_t size_;
    std::uint32_t sectorSize_;
};

}  // namespace machine
