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
inline constexpr ULONG kChunks = 1'000'000;

// Where things lie on the protected volume, in bytes. First chunks of 1 MiB; then runs of 1 MiB that are made
// of 256 chunks of a page, each run apart from the next; then chunks of a page with a page between them that
// was never written; then a range without any redirection.
inline constexpr ULONG kLargeChunks = 64;
inline constexpr ULONG kRuns = 64;
inline constexpr ULONG kRunPages = kMiB / kPage;
inline constexpr ULONG kScattered = kChunks - kLargeChunks - kRuns * kRunPages;
inline constexpr std::uint64_t kLargeBegin = 64 * kMiB;
inline constexpr std::uint64_t kRunsBegin = kLargeBegin + 2 * kLargeChunks * kMiB;
inline constexpr std::uint64_t kScatteredBegin = kRunsBegin + 2 * kRuns * kMiB;
inline constexpr std::uint64_t kUntouchedBegin = kScatteredBegin + 2ull * kScattered * kPage;
inline constexpr std::uint64_t kUntouchedBytes = 512 * kMiB;
inline constexpr std::uint64_t kStorageBegin = (kUntouchedBegin + kUntouchedBytes + kMiB - 1) / kMiB * kMiB;
inline constexpr std::uint64_t kSwapBytes =
    (kLargeChunks * kMiB + (kChunks - kLargeChunks) * std::uint64_t{kPage}) / kMiB * kMiB + 1024 * kMiB;

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
    // Makes everything, with the chunks swapped in the order of their volume offsets, and boots once more so
    // that the map is what a boot loads.
    Computer();
    ~Computer();

    // The tops of stacks.
    PDEVICE_OBJECT Protected() const { return protected_; }
    PDEVICE_OBJECT Plain() const { return plain_; }
    PDEVICE_OBJECT BareProtected() const { return bareProtected_->volume->Device(); }
    PDEVICE_OBJECT BarePlain() const { return barePlain_->volume->Device(); }
    PVOLUME_EXTENSION Record() const { return VolumeOf(protected_); }

    // A page or more of some document on either volume; stops when the request fails.
    void Transfer(PDEVICE_OBJECT device, UCHAR major, std::uint64_t offset, ULONG length);

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
    void SwapChunks();
    void Boot();
    void End();
    std::unique_ptr<BareStack> MakeBareStack(std::shared_ptr<machine::Disk> medium, unsigned number);

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
