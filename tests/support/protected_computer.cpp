#include "protected_computer.h"
#include <gtest/gtest.h>
#include "platform/host/sync/clock.h"
#include "tool/kvrctl/config_writer.h"
#include "lock_ranks.h"
#include "machine/partition/partition_table.h"
#include "platform/host/sync/thread.h"

namespace support {

namespace {

using namespace machine;

constexpr std::uint64_t kSystemBytes = 16 * kMiB;

// The one partition of a disk of that size.
std::vector<NewPartition> OnePartition(std::uint64_t bytes) {
    std::vector<NewPartition> partitions;
    std::string error;
    EXPECT_TRUE(LayOutPartitions(bytes, {0}, TableKind::Mbr, partitions, error)) << error;
    return partitions;
}

std::uint64_t VolumeOffset(std::uint64_t bytes) {
    return OnePartition(bytes).at(0).offset;
}

}  // namespace

std::shared_ptr<MemoryDisk> OneVolumeDisk(std::uint64_t bytes, std::uint32_t sector, std::uint64_t& offset) {
    auto disk = std::make_shared<MemoryDisk>(bytes, sector);
    const std::vector<NewPartition> partitions = OnePartition(bytes);
    for (const DiskPiece& piece : MakeMbr(bytes, sector, partitions, 1))
        EXPECT_EQ(STATUS_SUCCESS, disk->Write(piece.offset, piece.bytes.data(), piece.bytes.size()));
    offset = partitions.at(0).offset;
    return disk;
}

std::u16string Configuration::Text() const {
    config::FixedVolumeText section = {kDataName, true};
    section.bootMode = static_cast<std::uint32_t>(bootMode);
    section.action = static_cast<std::uint32_t>(bootAction);
    return config::GlobalSection(protection, 0) + config::FixedSection(section, 1) + extra;
}

ComputerOptions SmallOptions(ULONG piece, ULONG gap, std::uint64_t dataBytes) {
    ComputerOptions options;
    options.dataBytes = dataBytes;
    options.storageBegin = 8 * kMiB;
    options.piece = piece;
    options.gap = gap;
    return options;
}

void PowerOn(ProtectedComputer& computer) {
    ASSERT_EQ(STATUS_SUCCESS, computer.Hardware().PowerOn());
    ASSERT_EQ(STATUS_SUCCESS, computer.Hardware().DriverStatus());
    host::JoinSystemThreads();
}

ComputerImage Reconfigured(const ComputerImage& image, const Configuration& configuration) {
    ProtectedComputer computer(image);
    PowerOn(computer);
    EXPECT_EQ(STATUS_SUCCESS, computer.SetConfig(configuration));
    computer.Hardware().Shutdown();
    return computer.Capture();
}

ProtectedComputer::ProtectedComputer(const ComputerOptions& options) : options_(options) {
    systemDisk_ = OneVolumeDisk(kSystemBytes, 512, systemOffset_);
    dataDisk_ = OneVolumeDisk(options.dataBytes, options.dataSector, dataOffset_);
    Build();
}

ProtectedComputer::ProtectedComputer(const ComputerImage& image)
    : options_(image.options), systemDisk_(image.system->Clone()), dataDisk_(image.data->Clone()) {
    systemOffset_ = VolumeOffset(kSystemBytes);
    dataOffset_ = VolumeOffset(options_.dataBytes);
    Build();
    systemFiles_->Restore(*image.systemFiles);
    dataFiles_->Restore(*image.dataFiles);
    std::string error;
    EXPECT_TRUE(machine_->Registry().LoadText(image.registry, error)) << error;
}

void ProtectedComputer::Build() {
    dataFiles_->PieceBytes = options_.piece;
    dataFiles_->GapBytes = options_.gap;
    std::shared_ptr<Disk> data = dataDisk_;
    if (options_.cold) dataDisk_->SetCold();
    if (options_.dataCache) data = dataCache_ = std::make_shared<CachedDisk>(dataDisk_);
    MachineOptions machine;
    machine.disks = {{systemDisk_}, {data, false, options_.completion}};
    machine.driver = DriverEntry;
    machine.fileSystem = [this](const VolumeDevice& volume) {
        // Without a filter when its AddDevice failed.
        if (PDEVICE_OBJECT filter = volume.Device()->AttachedDevice) RankRecordLocks(::VolumeOf(filter));
        if (volume.Number() == kSystemVolume) return PlayedDriver(systemFiles_, kMiB, 12 * kMiB);
        return volume.Number() == kDataVolume
                   ? PlayedDriver(dataFiles_, options_.storageBegin, options_.dataBytes - dataOffset_)
                   : FileSystemDriver{};
    };
    RankGlobalLocks();
    host::SetSystemTime(host::TimeOf(2026, 11, 22, 12));
    host::ShortenWaits(100);
    machine_ = std::make_unique<Machine>(std::move(machine));
    for (const auto& files : {systemFiles_, dataFiles_})
        files->FollowPower([this] { return machine_->Power().IsCut(); });
    if (options_.hardened) Harden();
}

void ProtectedComputer::Harden() {
    constexpr char16_t key[] = u"\\Registry\\Machine\\System\\kvr";
    RegistryFile& registry = machine_->Registry();
    EXPECT_EQ(STATUS_SUCCESS, registry.CreateKey(key));
    EXPECT_EQ(STATUS_SUCCESS, registry.Set(key, u"Hardening", {REG_DWORD, {1, 0, 0, 0}}));
    EXPECT_EQ(STATUS_SUCCESS, registry.Flush());
}

ProtectedComputer::~ProtectedComputer() {
    machine_.reset();
    host::ShortenWaits(1);
    host::FollowRealClock();
}

void ProtectedComputer::LoseUnflushed(std::uint32_t seed) {
    if (dataCache_) {
        EXPECT_EQ(STATUS_SUCCESS, dataCache_->LosePower(seed));
    }
}

ComputerImage ProtectedComputer::Capture() const {
    return {options_,           systemDisk_->Clone(),       dataDisk_->Clone(), systemFiles_->Save(),
            dataFiles_->Save(), machine_->Registry().Text()};
}

void ProtectedComputer::Install(const Configuration& configuration, std::uint64_t swapBytes) {
    ASSERT_EQ(STATUS_SUCCESS, machine_->PowerOn());
    ASSERT_EQ(STATUS_SUCCESS, machine_->DriverStatus());
    ASSERT_EQ(STATUS_SUCCESS, SetConfig(configuration));
    ASSERT_EQ(STATUS_SUCCESS, Provision(swapBytes));
    ASSERT_EQ(swapBytes, static_cast<std::uint64_t>(Status().SwapTotalBytes));
    machine_->Shutdown();
}

NTSTATUS ProtectedComputer::SetConfig(const Configuration& configuration) {
    return Control(IOCTL_KVR_SET_CONFIG, ConfigRecord(configuration.Text()).data(), KVR_CONFIG_BYTES);
}

NTSTATUS ProtectedComputer::Provision(std::uint64_t swapBytes, const char16_t* volume) {
    const SWAP_CONFIG_REQUEST request = StorageRequest(volume, static_cast<std::int64_t>(swapBytes));
    const NTSTATUS status = Control(IOCTL_KVR_ALLOCATE_SWAP, &request, sizeof(request));
    host::JoinSystemThreads();
    return status;
}

NTSTATUS ProtectedComputer::RemoveStorage(const char16_t* volume) {
    const SWAP_CONFIG_REQUEST request = StorageRequest(volume);
    return Control(IOCTL_KVR_REMOVE_SWAP, &request, sizeof(request));
}

NTSTATUS ProtectedComputer::Control(ULONG code, const void* input, ULONG inputLength, void* output,
                                    ULONG outputLength, ULONG* returned) {
    ULONG bytes = 0;
    return machine_->Control(kControlDevice, code, input, inputLength, output, outputLength,
                             returned ? *returned : bytes);
}

KVR_FIXED_VOLUME_STATUS ProtectedComputer::Status(const char16_t* volume) {
    std::vector<KVR_FIXED_VOLUME_STATUS> records(8);
    ULONG bytes = 0;
    EXPECT_EQ(STATUS_SUCCESS, Control(IOCTL_KVR_GET_FIXED_VOLUMES, nullptr, 0, records.data(),
                                      static_cast<ULONG>(records.size() * sizeof(records[0])), &bytes));
    records.resize(bytes / sizeof(records[0]));
    for (const KVR_FIXED_VOLUME_STATUS& record : records) {
        if (std::u16string_view(reinterpret_cast<const char16_t*>(record.VolumeName)) == volume) return record;
    }
    ADD_FAILURE() << "the volume is not reported";
    return {};
}

void ProtectedComputer::ReadMedium(std::uint64_t offset, void* buffer, std::size_t length) {
    ASSERT_EQ(STATUS_SUCCESS, dataDisk_->Read(dataOffset_ + offset, buffer, length));
}

}  // namespace support
