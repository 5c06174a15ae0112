#include "nbd/byte_access.h"
#include <algorithm>
#include <bit>
#include <cstring>
#include <mutex>

namespace nbd {
namespace {

constexpr std::uint32_t kLargestSector = 4096;

// A range cut into a part of its first sector, whole sectors, and a part of its last one; each may be empty. A
// range within one sector is all head.
struct Cut {
    Cut(std::uint64_t offset, std::uint64_t length, std::uint32_t sector) {
        const std::uint64_t into = offset % sector;
        if (into != 0 || length < sector) head = std::min<std::uint64_t>(length, sector - into);
        tail = (length - head) % sector;
        whole = length - head - tail;
    }
    std::uint64_t head = 0, whole = 0, tail = 0;  // bytes
};

}  // namespace

// The stripes of a range, held shared.
class ByteAccess::SharedRegions {
public:
    SharedRegions(ByteAccess& access, std::uint64_t offset, std::uint64_t length) : access_(access) {
        const std::uint64_t first = offset / kRegionBytes;
        const std::uint64_t count = (offset + length - 1) / kRegionBytes - first + 1;
        for (std::uint64_t i = 0; i < std::min<std::uint64_t>(count, kStripes); ++i)
            held_ |= std::uint64_t{1} << (first + i) % kStripes;
        for (std::uint64_t left = held_; left != 0; left &= left - 1)
            access_.stripes_[static_cast<std::size_t>(std::countr_zero(left))].lock_shared();
    }
    ~SharedRegions() {
        for (std::uint64_t left = held_; left != 0; left &= left - 1)
            access_.stripes_[static_cast<std::size_t>(std::countr_zero(left))].unlock_shared();
    }
    SharedRegions(const SharedRegions&) = delete;
    SharedRegions& operator=(const SharedRegions&) = delete;

private:
    static_assert(kStripes == 64);  // one bit each
    ByteAccess& access_;
    std::uint64_t held_ = 0;
};

NTSTATUS ByteAccess::ReadPart(SectorTarget& target, std::uint64_t offset, std::uint8_t* to,
                              std::uint64_t length) const {
    std::uint8_t sector[kLargestSector];
    const std::uint64_t into = offset % sector_;
    const NTSTATUS status = target.Read(offset - into, sector, sector_);
    if (NT_SUCCESS(status)) std::memcpy(to, sector + into, length);
    return status;
}

NTSTATUS ByteAccess::Read(SectorTarget& target, std::uint64_t offset, void* buffer,
                          std::uint64_t length) const {
    auto* to = static_cast<std::uint8_t*>(buffer);
    const Cut cut(offset, length, sector_);
    NTSTATUS status = STATUS_SUCCESS;
    if (cut.head != 0) status = ReadPart(target, offset, to, cut.head);
    if (NT_SUCCESS(status) && cut.whole != 0) status = target.Read(offset + cut.head, to + cut.head, cut.whole);
    const std::uint64_t done = cut.head + cut.whole;
    if (NT_SUCCESS(status) && cut.tail != 0) status = ReadPart(target, offset + done, to + done, cut.tail);
    return status;
}

NTSTATUS ByteAccess::ChangePart(SectorTarget& target, std::uint64_t offset, const std::uint8_t* from,
                                std::uint64_t length) {
    std::uint8_t sector[kLargestSector];
    const std::uint64_t into = offset % sector_;
    const std::lock_guard alone(StripeOf(offset));
    NTSTATUS status = target.Read(offset - into, sector, sector_);
    if (!NT_SUCCESS(status)) return status;
    std::memcpy(sector + into, from, length);
    return target.Write(offset - into, sector, sector_);
}

NTSTATUS ByteAccess::WriteSectors(SectorTarget& target, std::uint64_t offset, const std::uint8_t* from,
                                  std::uint64_t length) {
    const SharedRegions shared(*this, offset, length);
    return target.Write(offset, from, length);
}

NTSTATUS ByteAccess::Write(SectorTarget& target, std::uint64_t offset, const void* buffer,
                           std::uint64_t length) {
    const auto* from = static_cast<const std::uint8_t*>(buffer);
    const Cut cut(offset, length, sector_);
    NTSTATUS status = STATUS_SUCCESS;
    if (cut.head != 0) status = ChangePart(target, offset, from, cut.head);
    if (NT_SUCCESS(status) && cut.whole != 0)
        status = WriteSectors(target, offset + cut.head, from + cut.head, cut.whole);
    const std::uint64_t done = cut.head + cut.whole;
    if (NT_SUCCESS(status) && cut.tail != 0) status = ChangePart(target, offset + done, from + done, cut.tail);
    return status;
}

}  // namespace nbd
