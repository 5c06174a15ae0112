#include <chrono>
#include <thread>
#include <utility>
#include "platform/host/io/device.h"
#include "platform/host/check/injector.h"
#include "platform/host/check/host_memory.h"
#include "platform/host/sync/clock.h"
#include "machine/disk/device_support.h"
#include "machine/boot/machine.h"
#include "machine/partition/partition_table.h"
#include "platform/host/object/namespace.h"
#include "platform/owners.h"
#include "platform/host/object/registry_store.h"
#include "platform/host/io/request.h"

namespace machine {

NTSTATUS Machine::PowerOn() {
    const std::unique_lock hold(use_);
    if (IsOn()) return STATUS_DEVICE_BUSY;
    host::PowerOn();
    host::SetRegistryStore(options_.registry.get());
    boot_ = std::make_unique<ThisBoot>();
    if (options_.mostVolumes != 0) boot_->numbers.emplace(*options_.registry, options_.mostVolumes);
    LoadDrivers();
    NTSTATUS status = BootDisks(false);
    if (NT_SUCCESS(status)) status = BootDisks(true);
    if (boot_->numbers)
        KVR_DISCARD(boot_->numbers->Save(), "numbers that are not written down are given again alike");
    for (unsigned number = 0; number < disks_.size(); ++number) BeginStepping(number);
    on_.store(true, std::memory_order_release);
    return status;
}

// Nobody could release what the boot itself waits for.
void Machine::BeginStepping(unsigned number) {
    const DiskSlot& slot = disks_[number];
    if (slot.device != nullptr && slot.completion == Completion::Stepped) {
        slot.device->SetCompletion(Completion::Stepped);
    }
}

void Machine::LoadDrivers() {
    {
        const host::FaultPause pause;
        boot_->diskDriver = host::CreateDriver(u"\\Driver\\Disk");
        boot_->volumeDriver = host::CreateDriver(u"\\Driver\\Volume");
        DiskDevice::Fill(boot_->diskDriver);
        VolumeDevice::Fill(boot_->volumeDriver);
    }
    if (options_.beforeDriver) options_.beforeDriver();
    if (options_.systemVolume != 0) {
        host::SetSystemRoot(u"\\Device\\HarddiskVolume" + Decimal(options_.systemVolume) +
                            options_.systemFolder);
    }
    driverStatus_ = STATUS_SUCCESS;
    if (options_.driver != nullptr) {
        driverStatus_ = host::LoadDriver(options_.driver, options_.driverName, boot_->driver);
    }
}

NTSTATUS Machine::BootDisks(bool removable) {
    std::vector<Volume*> started;
    for (unsigned number = 0; number < disks_.size(); ++number) {
        if (disks_[number].removable != removable || disks_[number].unplugged) continue;
        const NTSTATUS status = StartDisk(number);
        if (!NT_SUCCESS(status)) return status;
        for (Volume* volume : VolumesOn(number)) started.push_back(volume);
    }
    MountVolumes(started);
    return STATUS_SUCCESS;
}

NTSTATUS Machine::StartDisk(unsigned number) {
    DiskSlot& slot = disks_[number];
    slot.tableKnown = false;
    auto medium = std::make_shared<FaultDisk>(slot.medium, power_);
    NTSTATUS status;
    {
        const host::FaultPause pause;
        status = DiskDevice::Create(boot_->diskDriver, std::move(medium), number, slot.removable, slot.device);
    }
    if (!NT_SUCCESS(status)) return status;
    slot.device->SetCompletion(slot.completion == Completion::Stepped ? Completion::Immediate
                                                                      : slot.completion);
    const PDEVICE_OBJECT device = slot.device->Device();
    if (options_.filterDisks && boot_->driver != nullptr) {
        KVR_DISCARD(host::AddDeviceToStack(boot_->driver, device),
                    "a filter that fails is left out of the stack");
    }
    status = host::SendPnp(device, IRP_MN_START_DEVICE);
    // A disk whose start was refused stays without volumes, as a volume stays without a file system.
    if (NT_SUCCESS(status))
        status = StartVolumes(*slot.device);
    else
        status = STATUS_SUCCESS;
    slot.device->SetCompletion(slot.completion);
    return status;
}

NTSTATUS Machine::StartVolumes(DiskDevice& disk) {
    const PDEVICE_OBJECT top = host::TopOfStack(disk.Device());
    const auto read = [&](std::uint64_t offset, void* buffer, std::uint32_t length) {
        host::Request request;
        request.offset = static_cast<LONGLONG>(offset);
        request.buffer = buffer;
        request.length = length;
        return NT_SUCCESS(host::Send(top, request).status);
    };
    const PartitionTable table = ReadPartitionTable(read, disk.Medium().Size(), disk.Medium().SectorSize());
    for (const std::string& problem : table.problems) {
        DbgPrint("Disk %d: %s\n", static_cast<int>(disk.Number()), problem.c_str());
    }
    disks_[disk.Number()].tableKnown = !table.unread;
    unsigned index = 0;
    for (const Partition& partition : table.partitions) {
        const std::optional<unsigned> number = NextNumber(disk.Number(), partition, index++);
        if (!number) break;
        const NTSTATUS status = StartVolume(disk, *number, partition.offset, partition.length);
        if (!NT_SUCCESS(status)) return status;
    }
    return STATUS_SUCCESS;
}

std::optional<unsigned> Machine::NextNumber(unsigned disk, const Partition& partition, unsigned index) {
    if (disks_[disk].firstVolume != 0) return disks_[disk].firstVolume + index;
    if (boot_->numbers) return boot_->numbers->Take(disk, partition);
    return ++boot_->lastVolume;
}

NTSTATUS Machine::StartVolume(DiskDevice& disk, unsigned number, std::uint64_t offset, std::uint64_t length) {
    auto volume = std::make_unique<Volume>();
    volume->addStatus = STATUS_SUCCESS;
    volume->mountStatus = STATUS_UNRECOGNIZED_VOLUME;
    {
        const host::FaultPause pause;
        const NTSTATUS status =
            VolumeDevice::Create(boot_->volumeDriver, disk, number, offset, length, volume->device);
        if (!NT_SUCCESS(status)) return status;
    }
    const PDEVICE_OBJECT device = volume->device->Device();
    if (boot_->driver != nullptr) volume->addStatus = host::AddDeviceToStack(boot_->driver, device);
    volume->startStatus = host::SendPnp(device, IRP_MN_START_DEVICE);
    volume->io = std::make_unique<StackVolumeIo>(*volume->device);
    boot_->volumes.emplace(number, std::move(volume));
    return STATUS_SUCCESS;
}

void Machine::MountVolumes(const std::vector<Volume*>& volumes) {
    for (const bool system : {true, false}) {
        for (Volume* volume : volumes) {
            if ((volume->device->Number() == options_.systemVolume) == system) Mount(*volume);
        }
    }
}

namespace {

constexpr unsigned kMountAttempts = 3;
constexpr std::chrono::milliseconds kBetweenMounts{100};

bool MayPass(NTSTATUS status) {
    return status == STATUS_IO_DEVICE_ERROR || status == STATUS_INSUFFICIENT_RESOURCES;
}

// One read that fails must not leave the volume raw: a driver that keeps changes there would find its files
// gone and give them up. Whoever wants files of the volume waits meanwhile.
void MountPatiently(const FileSystemDriver& driver, Volume& volume) {
    for (unsigned left = kMountAttempts;; std::this_thread::sleep_for(kBetweenMounts / host::WaitDivisor())) {
        const bool tried = host::WithinMemory(false, [&] {
            volume.files = driver.mount(*volume.io, volume.mountStatus);
            return true;
        });
        if (!tried) volume.mountStatus = STATUS_INSUFFICIENT_RESOURCES;
        if (volume.files != nullptr || !MayPass(volume.mountStatus) || --left == 0) return;
    }
}

}  // namespace

void Machine::Mount(Volume& volume) {
    if (!NT_SUCCESS(volume.startStatus) || !options_.fileSystem) return;
    const FileSystemDriver driver = options_.fileSystem(*volume.device);
    if (!driver.mount) return;
    volume.mountStatus = STATUS_UNRECOGNIZED_VOLUME;
    // The mount's own reads wake the driver, whose threads may want files of this volume at once.
    const host::MountInProgress mounting(volume.device->Device());
    MountPatiently(driver, volume);
    if (volume.files == nullptr) return;
    volume.mountStatus = STATUS_SUCCESS;
    const host::FaultPause pause;
    PDEVICE_OBJECT device = nullptr;
    const std::u16string ownName = volume.files->DriverName();
    const NTSTATUS status = IoCreateDevice(FileSystemDriverOf(ownName.empty() ? driver.name : ownName), 0,
                                           nullptr, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &device);
    if (NT_SUCCESS(status)) {
        device->Flags &= ~DO_DEVICE_INITIALIZING;
        volume.device->Vpb()->DeviceObject = device;
    }
    host::MountProvider(volume.device->Device(), volume.files.get());
}

NTSTATUS Machine::MountRaw(unsigned number) {
    Volume* volume = VolumeOf(number);
    if (volume == nullptr) return STATUS_NO_SUCH_DEVICE;
    if (volume->files != nullptr) return STATUS_DEVICE_BUSY;
    const NTSTATUS status = host::WithinMemory([&] {
        Mount(*volume);
        return volume->mountStatus;
    });
    if (NT_SUCCESS(status) || volume->files == nullptr) return status;
    NTSTATUS ignored = STATUS_SUCCESS;
    Dismount(*volume, ignored);  // nothing was changed there that a flush could fail for
    volume->files.reset();
    return volume->mountStatus = status;
}

PDRIVER_OBJECT Machine::FileSystemDriverOf(const std::u16string& name) {
    PDRIVER_OBJECT& driver = boot_->fileSystemDrivers[name];
    if (driver == nullptr) driver = host::CreateDriver(name);
    return driver;
}

NTSTATUS Machine::AddDisk(MachineDisk disk, unsigned& number) {
    const std::unique_lock hold(use_);
    if (!IsOn()) return STATUS_DEVICE_POWERED_OFF;
    number = static_cast<unsigned>(disks_.size());
    disks_.push_back(
        {std::move(disk.medium), disk.removable, disk.completion, disk.firstVolume, false, nullptr, false});
    const NTSTATUS status = StartDisk(number);
    if (NT_SUCCESS(status)) MountVolumes(VolumesOn(number));
    BeginStepping(number);
    return status;
}

}  // namespace machine
