// A hosted computer for whole-driver tests: a small system disk (volume 1) and a data disk (volume 2) in
// memory, played file systems on both, the real driver in every stack, and a clock that stands until the test
// moves it.
#pragma once
#include <memory>
#include <string>
#include <vector>
#include "machine/boot/machine.h"
#include "machine/disk/cached_disk.h"
#include "tests/doubles/memory_disk.h"
#include "tests/doubles/played_driver.h"
#include "tests/support/driver_records.h"

namespace support {

inline constexpr std::uint64_t kKiB = 1024;
inline constexpr std::uint64_t kMiB = 1024 * kKiB;
// The data volume's region for the tests' own writes, and a storage that is just large enough to take them.
inline constexpr std::uint64_t kRegion = 1 * kMiB;
inline constexpr std::uint64_t kSwapBytes = 10 * kMiB;
inline constexpr unsigned kSystemVolume = 1;
inline constexpr unsigned kDataVolume = 2;
inline constexpr char16_t kControlDevice[] = u"\\Device\\kvr";
inline constexpr char16_t kDataName[] = u"\\Device\\HarddiskVolume2";

// The configuration text of one protected data volume.
struct Configuration {
    bool protection = true;
    int bootMode = 0;           // 0 discard at every boot, 1 keep
    int bootAction = 0;         // 1 discard once, 2 merge once
    std::u16string extra = {};  // further sections
    std::u16string Text() const;
};

struct ComputerOptions {
    std::uint32_t dataSector = 512;
    std::uint64_t dataBytes = 192 * kMiB;
    // The storage files are placed from here to the end of the data volume; what lies below is the test's.
    std::uint64_t storageBegin = 64 * kMiB;
    machine::Completion completion = machine::Completion::Immediate;
    bool cold = false;       // of the data disk no read is ready at once
    bool dataCache = false;  // the data disk has a volatile write cache
    // How the data volume's files are laid out: pieces of at most that many bytes with gaps between them. 0: as
    // large as it gets.
    ULONG piece = 0;
    ULONG gap = 0;
    bool hardened = false;  // the registry's Hardening, from the first boot on
};
ComputerOptions SmallOptions(ULONG piece, ULONG gap, std::uint64_t dataBytes = 48 * kMiB);

// What a computer keeps while its power is off. Many computers can be made from one image, each with disks of
// its own that share what none of them writes.
struct ComputerImage {
    ComputerOptions options;
    std::shared_ptr<const machine::MemoryDisk> system, data;
    std::shared_ptr<const PlayedFiles::Directory> systemFiles, dataFiles;
    std::string registry;
};

class ProtectedComputer {
public:
    explicit ProtectedComputer(const ComputerOptions& options = {});
    explicit ProtectedComputer(const ComputerImage& image);
    ~ProtectedComputer();

    machine::Machine& Hardware() { return *machine_; }
    machine::MemoryDisk& SystemDisk() { return *systemDisk_; }
    machine::MemoryDisk& DataDisk() { return *dataDisk_; }
    PlayedFiles& SystemFiles() { return *systemFiles_; }
    PlayedFiles& DataFiles() { return *dataFiles_; }
    // Where the volumes begin on their disks.
    std::uint64_t SystemOffset() const { return systemOffset_; }
    std::uint64_t DataOffset() const { return dataOffset_; }
    // Both with the power off. What a data disk without a cache has written it does not lose.
    void LoseUnflushed(std::uint32_t seed);
    ComputerImage Capture() const;

    // Boots with nothing configured, writes the configuration, makes `swapBytes` of storage and shuts down.
    void Install(const Configuration& configuration, std::uint64_t swapBytes);
    [[nodiscard]] NTSTATUS SetConfig(const Configuration& configuration);
    // Starts provisioning and waits for its end; the status is the request's.
    [[nodiscard]] NTSTATUS Provision(std::uint64_t swapBytes, const char16_t* volume = kDataName);
    [[nodiscard]] NTSTATUS RemoveStorage(const char16_t* volume = kDataName);
    [[nodiscard]] NTSTATUS Control(ULONG code, const void* input = nullptr, ULONG inputLength = 0,
                                   void* output = nullptr, ULONG outputLength = 0, ULONG* returned = nullptr);
    KVR_FIXED_VOLUME_STATUS Status(const char16_t* volume = kDataName);

    // The data volume's own bytes, from the medium.
    void ReadMedium(std::uint64_t offset, void* buffer, std::size_t length);

private:
    void Build();
    void Harden();

    ComputerOptions options_;
    std::shared_ptr<machine::MemoryDisk> systemDisk_;
    std::shared_ptr<machine::MemoryDisk> dataDisk_;
    std::shared_ptr<machine::CachedDisk> dataCache_;  // in front of it, or null
    std::shared_ptr<PlayedFiles> systemFiles_ = std::make_shared<PlayedFiles>();
    std::shared_ptr<PlayedFiles> dataFiles_ = std::make_shared<PlayedFiles>();
    std::uint64_t systemOffset_ = 0, dataOffset_ = 0;
    std::unique_ptr<machine::Machine> machine_;
};

void PowerOn(ProtectedComputer& computer);  // and waits for what the boot started

// An MBR disk with one volume over all of it; `offset` receives where the volume begins.
std::shared_ptr<machine::MemoryDisk> OneVolumeDisk(std::uint64_t bytes, std::uint32_t sector,
                                                   std::uint64_t& offset);
// The same computer with another configuration for its next boot.
ComputerImage Reconfigured(const ComputerImage& image, const Configuration& configuration);

}  // namespace support
