// The saved map: a location from the registry and entries from the volume's sectors, both as a damaged disk may
// have them, read as at boot and saved again.
#include "fuzz/support.h"
#include <algorithm>
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "config/storage.h"
#include "driver/globals.h"
#include "machine/disk/disk_device.h"
#include "platform/owners.h"
#include "swap/swap_file.h"
#include "platform/host/io/device.h"
#include "swap/map_boot.h"
#include "swap/map_format.h"
#include "tests/doubles/memory_disk.h"
#include "tests/support/map_invariants.h"
#include "tests/support/memory_registry.h"

namespace {

constexpr std::size_t kVolumeBytes = 64 * 1024;
constexpr SIZE_T kPoolLimit = 1024 * 1024;  // a run longer than that cannot be allocated
constexpr char16_t kName[] = u"\\Device\\HarddiskVolume1";

// A record over a small disk in memory, as StartDevice leaves it.
class Volume {
public:
    explicit Volume(ULONG sector) : medium_(std::make_shared<machine::MemoryDisk>(kVolumeBytes, 512)) {
        PDRIVER_OBJECT disks = host::CreateDriver(u"\\Driver\\disk");
        machine::DiskDevice::Fill(disks);
        fuzz::Require(NT_SUCCESS(machine::DiskDevice::Create(disks, medium_, 0, false, disk_)),
                      "the disk is made");
        PDRIVER_OBJECT driver = host::CreateDriver(u"\\Driver\\kvr");
        fuzz::Require(NT_SUCCESS(IoCreateDevice(driver, sizeof(VOLUME_EXTENSION), nullptr, FILE_DEVICE_DISK, 0,
                                                FALSE, &filter_)),
                      "the filter device is made");
        record_ = new (filter_->DeviceExtension) VOLUME_EXTENSION{};
        filter_->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
        record_->FilterDevice = filter_;
        record_->Target = IoAttachDeviceToDeviceStack(filter_, disk_->Device());
        RtlInitUnicodeString(&record_->VolumeName, kName);
        record_->IsVolume = TRUE;
        record_->MediaType = FixedMedia;
        record_->BytesPerSector = sector;
        ExInitializeFastMutex(&record_->SwapLock);
        KeInitializeMutex(&record_->StorageMutex, 0);
        KeInitializeMutex(&record_->MapLoadMutex, 0);
        InitSwapMaps(record_);
        swapFile_.SwapVolume = record_;
        record_->SwapFile = &swapFile_;
    }
    ~Volume() {
        ResetSwapMaps(filter_);
        ForgetMapLocation(record_);
        IoDetachDevice(record_->Target);
        IoDeleteDevice(filter_);
        IoDeleteDevice(disk_->Device());
    }
    PDEVICE_OBJECT Filter() const { return filter_; }
    PVOLUME_EXTENSION Record() const { return record_; }
    machine::MemoryDisk& Disk() { return *medium_; }
    std::vector<std::uint8_t> BootSector() {
        std::vector<std::uint8_t> sector(512);
        static_cast<void>(medium_->Read(0, sector.data(), sector.size()));
        return sector;
    }

private:
    std::shared_ptr<machine::MemoryDisk> medium_;
    std::unique_ptr<machine::DiskDevice> disk_;
    PDEVICE_OBJECT filter_ = nullptr;
    PVOLUME_EXTENSION record_ = nullptr;
    SWAP_FILE swapFile_{};
};

// Entries whose check byte is right are what leads behind the first check.
void SealEntries(std::vector<std::uint8_t>& bytes) {
    for (std::size_t at = 0; at + sizeof(SWAP_MAP_ENTRY) <= bytes.size(); at += sizeof(SWAP_MAP_ENTRY)) {
        SWAP_MAP_ENTRY entry;
        std::memcpy(&entry, &bytes[at], sizeof(entry));
        SealMapEntry(&entry);
        std::memcpy(&bytes[at], &entry, sizeof(entry));
    }
}

// The registry's value: any bytes, or runs that mostly lie on the volume.
std::vector<std::uint8_t> TakeLocation(FuzzedDataProvider& input) {
    if (input.ConsumeBool()) return input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegralInRange(0, 64));
    std::vector<std::uint8_t> value;
    const int runs = input.ConsumeIntegralInRange(0, 4);
    for (int i = 0; i < runs; ++i) {
        const MAP_LOCATION_ENTRY run = {input.ConsumeIntegralInRange<ULONG>(0, 130),
                                        input.ConsumeBool() ? input.ConsumeIntegral<ULONG>()
                                                            : input.ConsumeIntegralInRange<ULONG>(0, 1600)};
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(&run);
        value.insert(value.end(), bytes, bytes + sizeof(run));
    }
    value.resize(value.size() + input.ConsumeIntegralInRange<std::size_t>(0, 7));
    return value;
}

void CheckLoaded(Volume& volume) {
    PVOLUME_EXTENSION record = volume.Record();
    fuzz::Require(support::CheckMaps(record).empty(), support::CheckMaps(record));
    const ULONG state = record->SwapState;
    fuzz::Require(state == kSwapUsable || state == kSwapMapBad || state == kSwapNoLocation,
                  "the storage's state is one that loading gives");
    fuzz::Require(state == kSwapUsable || !record->IsProtected, "nothing is protected without its map");
    FastMutexLock lock(record->SwapLock);
    fuzz::Require(state != kSwapMapBad || record->SwapUsedBytes + record->SwapFreeBytes == 0,
                  "of a bad map nothing stays");
    fuzz::Require(!record->MapBuffer, "the buffer is gone with the load");
}

void LoadAtBoot(Volume& volume, FuzzedDataProvider& input) {
    support::MemoryRegistry registry;
    registry.values[kName] = {REG_BINARY, TakeLocation(input)};
    host::SetRegistryStore(&registry);
    const bool seal = input.ConsumeBool();
    const auto at = input.ConsumeIntegralInRange<std::size_t>(0, 8 * 1024);
    std::vector<std::uint8_t> image = input.ConsumeRemainingBytes<std::uint8_t>();
    if (seal) SealEntries(image);
    static_cast<void>(volume.Disk().Write(at / 512 * 512, image.data(), image.size()));

    PVOLUME_EXTENSION record = volume.Record();
    const std::vector<std::uint8_t> before = volume.BootSector();
    const bool merging = (record->BootAction & PV_ACTION_MERGE) != 0;
    static_cast<void>(PreloadSwapMap(volume.Filter()));
    CheckLoaded(volume);
    fuzz::Require(merging || volume.BootSector() == before, "the boot sector is left alone");
    record->MapDirty = TRUE;
    WriteSwapMap(volume.Filter(), TRUE);
    CheckLoaded(volume);
    host::SetRegistryStore(nullptr);
}

void RunInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    Volume volume(input.ConsumeBool() ? 4096 : 512);
    gTesselEnabled = input.ConsumeBool();
    gConfigLoaded = TRUE;
    volume.Record()->IsProtected = input.ConsumeBool();
    constexpr ULONG kActions[] = {0, PV_ACTION_DISCARD, PV_ACTION_MERGE};
    volume.Record()->BootAction = kActions[input.ConsumeIntegralInRange(0, 2)];
    LoadAtBoot(volume, input);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    host::PowerOn();
    InitializeGlobals();
    KeInitializeMutex(&gSwapFileMutex, 0);
    host::SetPoolLimit(kPoolLimit);
    RunInput(data, size);
    host::SetPoolLimit(host::kNoPoolLimit);
    for (const host::PoolBalance& left : host::PoolUsage())
        fuzz::Require(left.blocks == 0, "every block of the input is released");
    fuzz::EndPower();
    return 0;
}
