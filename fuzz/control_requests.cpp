// What programs may ask for: any control code with any buffers, at the control device and at the stacks of
// volumes and disks, in any order, over reboots, with a protected volume or without one.
#include "fuzz/support.h"
#include <algorithm>
#include "platform/host/sync/clock.h"
#include "config/parser.h"
#include "platform/host/io/device.h"
#include "driver/record/volume_extension.h"
#include "machine/boot/machine.h"
#include "tests/doubles/memory_disk.h"
#include "tests/doubles/played_driver.h"
#include "platform/host/io/request.h"
#include "tests/support/map_invariants.h"
#include "platform/host/sync/thread.h"

namespace {

using namespace machine;
using fuzz::Bytes;

constexpr unsigned kDisks = 3;  // system, data, removable; one volume on each
// Little, so that making storage ends soon whatever size is asked.
constexpr std::uint64_t kDataBytes = 4 << 20;
constexpr SIZE_T kLittlePool = 4 << 20;
constexpr char16_t kControlDevice[] = u"\\Device\\kvr";

constexpr ULONG kControlCodes[] = {
    IOCTL_KVR_GET_CONFIG,  IOCTL_KVR_SET_CONFIG, IOCTL_KVR_GET_FIXED_VOLUMES, IOCTL_KVR_GET_REMOVABLE_VOLUMES,
    IOCTL_KVR_GET_ENABLED, IOCTL_KVR_DEBUG,      IOCTL_KVR_ALLOCATE_SWAP,     IOCTL_KVR_STOP_SWAP_THREAD,
    IOCTL_KVR_REMOVE_SWAP};
constexpr ULONG kDeviceCodes[] = {IOCTL_DISK_GET_DRIVE_LAYOUT,     IOCTL_DISK_GET_DRIVE_LAYOUT_EX,
                                  IOCTL_DISK_SET_DRIVE_LAYOUT,     IOCTL_DISK_SET_DRIVE_LAYOUT_EX,
                                  IOCTL_MOUNTDEV_LINK_DELETED,     IOCTL_DISK_IS_WRITABLE,
                                  IOCTL_SCSI_PASS_THROUGH,         IOCTL_SCSI_PASS_THROUGH_DIRECT,
                                  IOCTL_IDE_PASS_THROUGH,          IOCTL_DISK_VERIFY,
                                  IOCTL_DISK_FORMAT_TRACKS,        IOCTL_DISK_GROW_PARTITION,
                                  IOCTL_DISK_DELETE_DRIVE_LAYOUT,  FSCTL_MOVE_FILE,
                                  IOCTL_VOLUME_PREPARE_FOR_SHRINK, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS,
                                  IOCTL_DISK_GET_DRIVE_GEOMETRY,   IOCTL_DISK_GET_LENGTH_INFO};
// Whose buffers the driver looks into.
constexpr ULONG kReadCodes[] = {IOCTL_SCSI_PASS_THROUGH, IOCTL_SCSI_PASS_THROUGH_DIRECT};
// Lengths that the driver knows, beside which any other is tried.
constexpr ULONG kLengths[] = {0, 4, 8, 56, 128, 132, 136, 160, 320, KVR_CONFIG_BYTES};

class Computer {
public:
    Computer() {
        MachineOptions options;
        options.disks = {{std::make_shared<MemoryDisk>(1 << 20, 512)},
                         {std::make_shared<MemoryDisk>(kDataBytes, 512)},
                         {std::make_shared<MemoryDisk>(1 << 20, 512), true}};
        options.driver = DriverEntry;
        options.fileSystem = [this](const VolumeDevice& volume) {
            if (volume.Removable()) return FileSystemDriver{};
            return volume.Number() == 1 ? PlayedDriver(system_, 256 * 1024, 1 << 20)
                                        : PlayedDriver(data_, 512 * 1024, kDataBytes);
        };
        machine_ = std::make_unique<Machine>(std::move(options));
        fuzz::Require(NT_SUCCESS(machine_->PowerOn()) && NT_SUCCESS(machine_->DriverStatus()),
                      "the machine boots");
    }

    Machine& Hardware() { return *machine_; }
    // The tops of the volumes' stacks. A removable one that the configuration hides is not there.
    std::vector<PDEVICE_OBJECT> Volumes() {
        std::vector<PDEVICE_OBJECT> tops;
        for (const Volume* volume : machine_->Volumes())
            tops.push_back(host::TopOfStack(volume->device->Device()));
        return tops;
    }
    std::vector<PDEVICE_OBJECT> Devices() {
        std::vector<PDEVICE_OBJECT> tops = Volumes();
        for (unsigned i = 0; i < kDisks; ++i) tops.push_back(host::TopOfStack(machine_->DiskOf(i)->Device()));
        return tops;
    }
    // As a configuration would: now, for the rest of the boot.
    void Protect() {
        gTesselEnabled = TRUE;
        for (PDEVICE_OBJECT volume : Volumes()) VolumeOf(volume)->IsProtected = TRUE;
    }
    void Reboot() {
        NTSTATUS booted = STATUS_UNSUCCESSFUL;
        const ShutdownReport report = machine_->Reboot(booted);
        CheckEnd(report);
        fuzz::Require(NT_SUCCESS(booted) && NT_SUCCESS(machine_->DriverStatus()), "the machine boots again");
    }
    static void CheckEnd(const ShutdownReport& report) {
        fuzz::Require(report.leaks.memory.irps == 0 && report.leaks.memory.mdls == 0,
                      "every request has ended");
    }
    void CheckVolumes() {
        for (PDEVICE_OBJECT volume : Volumes()) {
            const std::string wrong = support::CheckMaps(VolumeOf(volume));
            fuzz::Require(wrong.empty(), wrong);
        }
    }

private:
    std::shared_ptr<PlayedFiles> system_ = std::make_shared<PlayedFiles>();
    std::shared_ptr<PlayedFiles> data_ = std::make_shared<PlayedFiles>();
    std::unique_ptr<Machine> machine_;
};

ULONG TakeLength(FuzzedDataProvider& input) {
    if (input.ConsumeIntegralInRange(0, 3) != 0) return input.PickValueInArray(kLengths);
    return input.ConsumeIntegralInRange<ULONG>(0, 9000);
}

// A buffer of the length, the input's bytes at its begin.
Bytes TakeBuffer(FuzzedDataProvider& input, ULONG length) {
    Bytes bytes =
        input.ConsumeBytes<std::uint8_t>(std::min<std::size_t>(length, input.ConsumeIntegral<std::uint8_t>()));
    bytes.resize(length);
    return bytes;
}

// The records of the requests, well-formed, so that what is behind the checks of lengths is reached.
Bytes TakeRecord(FuzzedDataProvider& input, ULONG code) {
    if (code == IOCTL_KVR_SET_CONFIG) return fuzz::TakeConfig(input, fuzz::kVolumes[1]);
    if (code == IOCTL_SCSI_PASS_THROUGH || code == IOCTL_SCSI_PASS_THROUGH_DIRECT)
        return TakeBuffer(input, sizeof(SCSI_PASS_THROUGH));
    const std::u16string& volume = input.PickValueInArray(fuzz::kVolumes);
    return fuzz::BytesOf(
        support::StorageRequest(volume, input.ConsumeBool() ? input.ConsumeIntegral<std::int64_t>() : 1 << 20));
}

// A record, a record with its end missing, or any bytes.
Bytes TakeInput(FuzzedDataProvider& input, ULONG code) {
    const int kind = input.ConsumeIntegralInRange(0, 3);
    if (kind == 0) return TakeBuffer(input, TakeLength(input));
    Bytes bytes = TakeRecord(input, code);
    if (kind == 1) bytes.resize(input.ConsumeIntegralInRange<std::size_t>(0, bytes.size()));
    return bytes;
}

NTSTATUS Ask(Computer& computer, ULONG code, const Bytes& input, std::size_t room = 0) {
    const Bytes in(input.begin(), input.end());
    Bytes out(room, 0xEE);
    ULONG returned = 0;
    const NTSTATUS status =
        computer.Hardware().Control(kControlDevice, code, in.data(), static_cast<ULONG>(in.size()), out.data(),
                                    static_cast<ULONG>(out.size()), returned);
    // A direct code would let the caller change the other buffer under the driver: none of its own is one.
    fuzz::Require(status != STATUS_PENDING && returned <= out.size(), "the answer fits");
    return status;
}

void AskControlDevice(Computer& computer, FuzzedDataProvider& input) {
    const ULONG code =
        input.ConsumeBool() ? input.PickValueInArray(kControlCodes) : input.ConsumeIntegral<ULONG>();
    const Bytes in = TakeInput(input, code);
    static_cast<void>(Ask(computer, code, in, TakeLength(input)));
}

ULONG TakeCode(FuzzedDataProvider& input) {
    switch (input.ConsumeIntegralInRange(0, 3)) {
        case 0:
            return input.ConsumeIntegral<ULONG>();
        case 1:
            return input.PickValueInArray(kReadCodes);
        default:
            return input.PickValueInArray(kDeviceCodes);
    }
}

// Every volume and every disk is asked the same.
void AskStacks(Computer& computer, FuzzedDataProvider& input) {
    host::Control control{};
    control.code = TakeCode(input);
    control.major = input.PickValueInArray<UCHAR>({IRP_MJ_DEVICE_CONTROL, IRP_MJ_INTERNAL_DEVICE_CONTROL});
    const Bytes given = TakeInput(input, control.code), in(given.begin(), given.end());
    Bytes out(input.ConsumeBool() ? TakeLength(input) : 0, 0xEE);
    control.input = in.data();
    control.inputLength = static_cast<ULONG>(in.size());
    control.output = out.data();
    control.outputLength = static_cast<ULONG>(out.size());
    for (PDEVICE_OBJECT device : computer.Devices()) static_cast<void>(host::SendControl(device, control));
}

// Reads and writes of a volume between the requests, so that there is something redirected.
void Transfer(Computer& computer, FuzzedDataProvider& input) {
    const unsigned volume = input.ConsumeIntegralInRange(1u, kDisks);
    const std::uint64_t offset = input.ConsumeIntegralInRange<std::uint64_t>(0, kDataBytes / 512) * 512;
    Bytes buffer(input.ConsumeIntegralInRange<std::size_t>(1, 16) * 512, 0x5A);
    const auto length = static_cast<std::uint32_t>(buffer.size());
    static_cast<void>(input.ConsumeBool() ? computer.Hardware().Read(volume, offset, buffer.data(), length)
                                          : computer.Hardware().Write(volume, offset, buffer.data(), length));
}

// Storage as a tool makes it, to its end.
void MakeStorage(Computer& computer) {
    static_cast<void>(Ask(computer, IOCTL_KVR_ALLOCATE_SWAP,
                          fuzz::BytesOf(support::StorageRequest(fuzz::kVolumes[1], 2 << 20))));
    host::JoinSystemThreads();
}

void Step(Computer& computer, FuzzedDataProvider& input) {
    switch (input.ConsumeIntegralInRange(0, 9)) {
        case 0:
            return computer.Reboot();
        case 1:
            return MakeStorage(computer);
        case 2:
        case 3:
            return Transfer(computer, input);
        case 4:
        case 5:
        case 6:
            return AskStacks(computer, input);
        default:
            return AskControlDevice(computer, input);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    host::SetSystemTime(host::TimeOf(2026, 11, 22, 12));
    // With little pool, making storage gives up at once; what it does with enough takes its time.
    host::SetPoolLimit(input.ConsumeIntegralInRange(0, 7) == 0 ? host::kNoPoolLimit : kLittlePool);
    Computer computer;
    if (input.ConsumeBool()) computer.Protect();
    for (int steps = 0; steps < 12 && input.remaining_bytes() != 0; ++steps) Step(computer, input);
    const NTSTATUS stopped = Ask(computer, IOCTL_KVR_STOP_SWAP_THREAD, {});
    fuzz::Require(NT_SUCCESS(stopped), "a provisioning thread stops when it is told to");
    host::JoinSystemThreads();
    computer.CheckVolumes();
    computer.CheckEnd(computer.Hardware().Shutdown());
    host::SetPoolLimit(host::kNoPoolLimit);
    return 0;
}
