// A disk with a volatile write cache: it answers writes at once, puts them on stable storage in any order, and
// only a flush says that they are there.
#pragma once
#include <map>
#include <memory>
#include <mutex>
#include <vector>
#include "machine/disk/disk.h"

namespace machine {

// Thread-safe. The disk below always holds the newest content; what it may lose is kept beside it.
class CachedDisk final : public Disk {
public:
    explicit CachedDisk(std::shared_ptr<Disk> disk);
    std::uint64_t Size() const override { return disk_->Size(); }
    std::uint32_t SectorSize() const override { return disk_->SectorSize(); }
    [[nodiscard]] NTSTATUS Read(std::uint64_t offset, void* buffer, std::size_t length) override;
    [[nodiscard]] NTSTATUS Write(std::uint64_t offset, const void* buffer, std::size_t length) override;
    [[nodiscard]] NTSTATUS Flush() override;

    // The power is gone: of the writes since the last flush the disk keeps none (seed 0), any of them whole
    // (even seeds), or of each sector any of the contents that it had since (odd seeds).
    [[nodiscard]] NTSTATUS LosePower(std::uint32_t seed);

private:
    using Bytes = std::vector<std::uint8_t>;
    struct Unflushed {
        Bytes flushed;                                         // what the sector held at the last flush
        std::vector<std::pair<std::uint32_t, Bytes>> written;  // since then: by which write, and what
    };
    static const Bytes& Survivor(const Unflushed& sector, std::uint32_t seed, std::uint32_t random);
    [[nodiscard]] NTSTATUS Remember(std::uint64_t offset, const std::uint8_t* data, std::size_t length);

    const std::shared_ptr<Disk> disk_;
    std::mutex lock_;                               // guards what follows, and a write as a whole
    std::map<std::uint64_t, Unflushed> unflushed_;  // by byte offset
    std::uint32_t writes_ = 0;
};

}  // namespace machine
