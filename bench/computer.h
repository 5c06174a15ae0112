// The computer that the cases run on: a protected volume with a million swapped chunks, an unprotected one, and
// beside each the same volume on a stack without the driver.
#pragma once
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>
#include "formats/kvr_ioctl.h"
#include "driver/record/volume_extension.h"
#include "machine/boot/machine.h"
#include "tests/doubles/memory_disk.h"
#include "tests/doubles/played_driver.h"
#include "platform/host/io/request.h"

namespace bench {

inline constexpr std::uint64_t kKiB = 1024;
inline constexpr std::uint64_t kMiB = 1024 * kKiB;
inline constexpr ULONG kPage = 4 * kKiB;

// Where things lie on the protected volume, in bytes. First chunks of 1 MiB; then runs of 1 MiB that are made
// of 256 chunks of a page, each run apart from the next; then chunks of a page with a page between them that
// was never written; then a range without any redirection; then the storage.
inline constexpr ULONG kRunPages = kMiB / kPage;
struct Layout {
    ULONG large, runs, scattered;
    std::uint64_t spare;  // of the swap, free when all chunks are there

    ULONG Chunks() const { return large + runs * kRunPages + scattered; }
    std::uint64_t LargeBegin() const { return 64 * kMiB; }
    std::uint64_t RunsBegin() const { return LargeBegin() + 2 * large * kMiB; }
    std::uint64_t ScatteredBegin() const { return RunsBegin() + 2 * runs * kMiB; }
    std::uint64_t UntouchedBegin() const { return ScatteredBegin() + 2ull * scattered * kPage; }
    std::uint64_t StorageBegin() const { return (UntouchedBegin() + kUntouchedBytes + kMiB - 1) / kMiB * kMiB; }
    std::uint64_t SwapBytes() const {
        return (large * kMiB + (Chunks() - large) * std::uint64_t{kPage}) / kMiB * kMiB + spare;
    }
    std::uint64_t StorageEnd() const { return StorageBegin() + SwapBytes(); }
    static constexpr std::uint64_t kUntouchedBytes = 512 * kMiB;
};

// A memory disk that keeps the data of a large range in a small one: a byte of it is shared by those that lie
// `window` bytes apart. The map has its full size, and the window is far larger than any cache, but a computer
// need not have the gigabytes that the redirected data would take.
class FoldedDisk final : public machine::Disk {
public:
    FoldedDisk(std::uint64_t size, std::uint64_t foldBegin, std::uint64_t foldEnd, std::uint64_t window);
    std::uint64_t Size() const override { return disk_.Size(); }
    std::uint32_t SectorSize() const override { return disk_.SectorSize(); }
    [[nodiscard]] NTSTATUS Read(std::uint64_t offset, void* buffer, std::size_t length) override;
    [[nodiscard]] NTSTATUS Write(std::uint64_t offset, const void* buffer, std::size_t length) override;
    [[nodiscard]] NTSTATUS Flush() override { return STATUS_SUCCESS; }

private:
    // Where the byte lies, and how many of `length` lie behind it in one piece.
    std::uint64_t Place(std::uint64_t offset, std::size_t length, std::size_t& part) const;
    machine::MemoryDisk disk_;
    const std::uint64_t begin_, end_, window_;
};

class Computer {
public:
    // Makes everything but the chunks, and boots once more, so that the volume is protected.
    explicit Computer(const Layout& layout);
    ~Computer();

    // Swaps the chunks, in the order of their volume offsets or with the scattered ones in any order.
    void SwapChunks(bool inOrder);
    // Shuts down and boots: the map is then what a boot loads. Returns how long the boot took, in nanoseconds.
    double Restart();

    // The tops of stacks.
    PDEVICE_OBJECT Protected() const { return protected_; }
    PDEVICE_OBJECT Plain() const { return plain_; }
    PDEVICE_OBJECT BareProtected() const { return bareProtected_->volume->Device(); }
    PDEVICE_OBJECT BarePlain() const { return barePlain_->volume->Device(); }
    PVOLUME_EXTENSION Record() const { return VolumeOf(protected_); }
    const Layout& Places() const { return layout_; }

    // A page or more of some document on either volume; stops when the request fails. `buffer`, which another
    // thread has of its own, holds whole pages.
    void Transfer(PDEVICE_OBJECT device, UCHAR major, std::uint64_t offset, ULONG length,
                  void* buffer = nullptr);

private:
    // A disk and a volume on it, by hand: nothing is asked to attach to them.
    struct BareStack {
        std::unique_ptr<machine::DiskDevice> disk;
        std::unique_ptr<machine::VolumeDevice> volume;
    };
    struct Free {
        void operator()(std::uint8_t* block) const { std::free(block); }
    };
    void Configure();
    void MakeStorage();
    void Boot();
    void End();
    std::unique_ptr<BareStack> MakeBareStack(std::shared_ptr<machine::Disk> medium, unsigned number);

    const Layout layout_;
    std::shared_ptr<machine::Disk> systemDisk_, dataDisk_, plainDisk_;
    std::shared_ptr<PlayedFiles> systemFiles_, dataFiles_;
    std::unique_ptr<machine::Machine> machine_;
    std::unique_ptr<BareStack> bareProtected_, barePlain_;
    PDEVICE_OBJECT protected_ = nullptr, plain_ = nullptr;
    PFILE_OBJECT file_ = nullptr;
    std::unique_ptr<std::uint8_t, Free> buffer_;  // of whole pages
};

// Stops the run with the message unless `holds`.
void Require(bool holds, const char* what);

}  // namespace bench
