// Power. One switch is shared by everything in a machine that persists anything, so that a cut falls
// between two writes of one sequence, whichever disk or registry they go to.
#pragma once
#include <atomic>
#include <memory>
#include <shared_mutex>
#include "machine/disk/disk.h"

namespace machine {

// Thread-safe. Once cut, it stays cut until Restore().
class PowerSwitch {
public:
    // What a write may do; it keeps the power up until it is destroyed.
    class Permit {
    public:
        // The whole write, part of it, or none of it.
        bool Full() const { return full_; }
        std::uint32_t SectorsKept() const { return sectorsKept_; }  // meaningful when not Full()

    private:
        friend class PowerSwitch;
        std::shared_lock<std::shared_mutex> hold_;
        bool full_ = false;
        std::uint32_t sectorsKept_ = 0;
    };

    // Asked before each disk or registry write or flush, and kept while it is made.
    Permit AdmitWrite();
    bool IsCut() const { return cut_.load(std::memory_order_acquire); }

    // Cuts now: when this returns no write is under way and none will be made.
    void Cut();
    // The `nth` write or flush from now (1 is the next) is the first that does not complete: `sectorsKept` of
    // its leading sectors reach the disk, then the power is gone. 0 disarms.
    void ArmCut(std::uint64_t nth, std::uint32_t sectorsKept = 0);
    void Restore();  // power is back, nothing is armed
    std::uint64_t WritesSeen() const { return seen_.load(std::memory_order_relaxed); }

private:
    std::atomic<bool> cut_{false};
    std::atomic<std::uint64_t> seen_{0};
    std::atomic<std::uint64_t> cutAt_{0};  // value of seen_ that cuts, 0: none
    std::atomic<std::uint32_t> sectorsKept_{0};
    std::shared_mutex writing_;  // held shared by each write under way
};

// A disk behind a power switch: after the cut every request fails with STATUS_DEVICE_POWERED_OFF.
class FaultDisk final : public Disk {
public:
    FaultDisk(std::shared_ptr<Disk> disk, std::shared_ptr<PowerSwitch> power);
    std::uint64_t Size() const override { return disk_->Size(); }
    std::uint32_t SectorSize() const override { return disk_->SectorSize(); }
    [[nodiscard]] NTSTATUS Read(std::uint64_t offset, void* buffer, std::size_t length) override;
    [[nodiscard]] NTSTATUS ReadAtOnce(std::uint64_t offset, void* buffer, std::size_t length) override;
    std::unique_ptr<ReadUnderWay> BeginRead(std::uint64_t offset, std::size_t length) override;
    [[nodiscard]] NTSTATUS Write(std::uint64_t offset, const void* buffer, std::size_t length) override;
    [[nodiscard]] NTSTATUS WriteAside(std::uint64_t offset, const void* buffer, std::size_t length) override;
    [[nodiscard]] NTSTATUS Flush() override;

private:
    using WriteRoutine = NTSTATUS (Disk::*)(std::uint64_t, const void*, std::size_t);
    NTSTATUS Pass(WriteRoutine write, std::uint64_t offset, const void* buffer, std::size_t length);

    std::shared_ptr<Disk> disk_;
    std::shared_ptr<PowerSwitch> power_;
};

}  // namespace machine
