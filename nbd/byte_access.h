// Byte ranges on a disk of whole sectors. Whole sectors go straight through; a sector of which a write covers a
// part is read, changed and written back, and no other write to that sector falls in between.
#pragma once
#include <array>
#include <cstdint>
#include "nbd/fair_lock.h"
#include "platform/kernel.h"

namespace nbd {

// Whole sectors at disk offsets.
class SectorTarget {
public:
    virtual ~SectorTarget() = default;
    [[nodiscard]] virtual NTSTATUS Read(std::uint64_t offset, void* buffer, std::uint64_t length) = 0;
    [[nodiscard]] virtual NTSTATUS Write(std::uint64_t offset, const void* buffer, std::uint64_t length) = 0;
};

// One for each disk, shared by all that write to it. Any number of threads may call at once.
class ByteAccess {
public:
    // `sectorBytes` is 512 or 4096.
    explicit ByteAccess(std::uint32_t sectorBytes) : sector_(sectorBytes) {}

    // A failure may leave a part of the buffer, or of the range on the disk, as it was.
    [[nodiscard]] NTSTATUS Read(SectorTarget& target, std::uint64_t offset, void* buffer,
                                std::uint64_t length) const;
    [[nodiscard]] NTSTATUS Write(SectorTarget& target, std::uint64_t offset, const void* buffer,
                                 std::uint64_t length);

private:
    static constexpr std::uint64_t kRegionBytes = 1024 * 1024;
    static constexpr std::size_t kStripes = 64;
    class SharedRegions;

    FairLock& StripeOf(std::uint64_t offset) { return stripes_[offset / kRegionBytes % kStripes]; }
    [[nodiscard]] NTSTATUS ReadPart(SectorTarget& target, std::uint64_t offset, std::uint8_t* to,
                                    std::uint64_t length) const;
    [[nodiscard]] NTSTATUS ChangePart(SectorTarget& target, std::uint64_t offset, const std::uint8_t* from,
                                      std::uint64_t length);
    [[nodiscard]] NTSTATUS WriteSectors(SectorTarget& target, std::uint64_t offset, const std::uint8_t* from,
                                        std::uint64_t length);

    const std::uint32_t sector_;
    // Held shared over a write of whole sectors, alone over a change of a part of one; several are taken in
    // ascending order.
    std::array<FairLock, kStripes> stripes_;
};

}  // namespace nbd
