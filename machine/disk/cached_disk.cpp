#include "machine/disk/cached_disk.h"
#include <random>
#include <utility>

namespace machine {

namespace {

// Whether the write survives a power failure of that seed.
bool IsKept(std::uint32_t write, std::uint32_t seed) {
    return (std::minstd_rand(write * 7919 + seed)() >> 8) % 2 != 0;
}

}  // namespace

CachedDisk::CachedDisk(std::shared_ptr<Disk> disk) : disk_(std::move(disk)) {}

NTSTATUS CachedDisk::Read(std::uint64_t offset, void* buffer, std::size_t length) {
    return disk_->Read(offset, buffer, length);
}

NTSTATUS CachedDisk::Remember(std::uint64_t offset, const std::uint8_t* data, std::size_t length) {
    const std::uint32_t unit = SectorSize();
    ++writes_;
    for (std::size_t done = 0; done < length; done += unit) {
        const auto [found, isNew] = unflushed_.try_emplace(offset + done);
        Unflushed& sector = found->second;
        if (isNew) {
            sector.flushed.resize(unit);
            const NTSTATUS status = disk_->Read(offset + done, sector.flushed.data(), unit);
            if (!NT_SUCCESS(status)) return status;
        }
        sector.written.emplace_back(writes_, Bytes(data + done, data + done + unit));
    }
    return STATUS_SUCCESS;
}

NTSTATUS CachedDisk::Write(std::uint64_t offset, const void* buffer, std::size_t length) {
    const std::lock_guard hold(lock_);
    const NTSTATUS status = Remember(offset, static_cast<const std::uint8_t*>(buffer), length);
    return NT_SUCCESS(status) ? disk_->Write(offset, buffer, length) : status;
}

NTSTATUS CachedDisk::Flush() {
    const std::lock_guard hold(lock_);
    unflushed_.clear();
    return disk_->Flush();
}

const CachedDisk::Bytes& CachedDisk::Survivor(const Unflushed& sector, std::uint32_t seed,
                                              std::uint32_t random) {
    if (seed == 0) return sector.flushed;
    if (seed % 2 != 0) {
        const std::size_t index = random % (sector.written.size() + 1);
        return index == 0 ? sector.flushed : sector.written[index - 1].second;
    }
    for (auto write = sector.written.rbegin(); write != sector.written.rend(); ++write)
        if (IsKept(write->first, seed)) return write->second;
    return sector.flushed;
}

NTSTATUS CachedDisk::LosePower(std::uint32_t seed) {
    const std::lock_guard hold(lock_);
    std::mt19937 random(seed * 7919 + writes_);  // so that one seed does not always keep the same sectors
    for (const auto& [offset, sector] : std::exchange(unflushed_, {})) {
        const Bytes& survivor = Survivor(sector, seed, static_cast<std::uint32_t>(random()));
        const NTSTATUS status = disk_->Write(offset, survivor.data(), survivor.size());
        if (!NT_SUCCESS(status)) return status;
    }
    return disk_->Flush();
}

}  // namespace machine
