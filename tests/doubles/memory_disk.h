// A sparse disk in memory. Copies share their unchanged chunks, so a sweep that starts a thousand machines
// from one disk copies only what each of them writes.
#pragma once
#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>
#include "machine/disk/disk.h"

namespace machine {

class MemoryDisk final : public Disk {
public:
    static constexpr std::size_t kChunk = 64 * 1024;  // a multiple of every sector size

    // `size` must be a multiple of `sectorSize`. Unwritten sectors read as zeros.
    MemoryDisk(std::uint64_t size, std::uint32_t sectorSize);

    std::uint64_t Size() const override { return size_; }
    std::uint32_t SectorSize() const override { return sectorSize_; }
    [[nodiscard]] NTSTATUS Read(std::uint64_t offset, void* buffer, std::size_t length) override;
    [[nodiscard]] NTSTATUS ReadAtOnce(std::uint64_t offset, void* buffer, std::size_t length) override {
        return cold_ ? STATUS_PENDING : Read(offset, buffer, length);
    }
    [[nodiscard]] NTSTATUS Write(std::uint64_t offset, const void* buffer, std::size_t length) override;
    [[nodiscard]] NTSTATUS Flush() override { return STATUS_SUCCESS; }

    // From now on no read is ready at once.
    void SetCold() { cold_ = true; }

    // The disk as it is now. Writes that run meanwhile are in the copy or not, sector by sector.
    std::unique_ptr<MemoryDisk> Clone() const;
    struct Range {
        std::uint64_t begin, end;  // bytes, whole sectors
    };
    // Where two disks of one size differ, ascending and apart; shared chunks are not compared byte by byte.
    // Neither may be written meanwhile.
    std::vector<Range> DifferencesFrom(const MemoryDisk& other) const;
    bool SameContent(const MemoryDisk& other) const { return DifferencesFrom(other).empty(); }

private:
    using Chunk = std::array<std::uint8_t, kChunk>;
    static constexpr std::size_t kStripes = 64;

    // Calls `move` for each part of the range, with its chunk's index, where it begins in the chunk and in the
    // range, and its length, under the chunk's stripe.
    template <class Move>
    NTSTATUS ForEachChunk(std::uint64_t offset, std::size_t length, const Move& move);
    void CompareChunk(const MemoryDisk& other, std::size_t index, std::vector<Range>& found) const;
    Chunk& MakeWritable(std::size_t index);  // with the stripe of `index` held
    std::mutex& StripeOf(std::size_t index) const { return stripes_[index % kStripes]; }

    std::uint64_t size_;
    std::uint32_t sectorSize_;
    std::atomic<bool> cold_{false};
    // Null: zeros. A slot is guarded by its stripe; only the sole holder of a chunk writes to it.
    std::vector<std::shared_ptr<Chunk>> chunks_;
    mutable std::array<std::mutex, kStripes> stripes_;
};

}  // namespace machine
