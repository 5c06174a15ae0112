#include "machine/boot/machine.h"
#include <utility>
#include "machine/disk/device_support.h"
#include "platform/host/io/device.h"
#include "platform/host/io/request.h"
#include "platform/host/io/user_mode.h"

namespace machine {

Machine::Machine(MachineOptions options)
    : options_(std::move(options)), power_(std::make_shared<PowerSwitch>()) {
    if (options_.registry == nullptr) options_.registry = RegistryFile::InMemory();
    options_.registry->SetPower(power_);
    for (MachineDisk& disk : options_.disks) {
        disks_.push_back(
            {std::move(disk.medium), disk.removable, disk.completion, disk.firstVolume, false, nullptr, false});
    }
}

Machine::~Machine() {
    if (IsOn()) PowerCut();
    options_.registry->SetPower(nullptr);
}

Machine::Use::Use(Machine& machine) {
    // Asked before the lock is tried, so that a stream of users cannot keep the boot's end waiting.
    if (!machine.IsOn()) return;
    hold_ = std::shared_lock(machine.use_);
    if (!machine.IsOn()) hold_.unlock();
}

Volume* Machine::VolumeOf(unsigned number) {
    if (boot_ == nullptr) return nullptr;
    const auto found = boot_->volumes.find(number);
    return found == boot_->volumes.end() ? nullptr : found->second.get();
}

Volume* Machine::VolumeNamed(std::u16string_view name) {
    for (Volume* volume : Volumes()) {
        if (FoldName(volume->device->Name()) == FoldName(name)) return volume;
    }
    return nullptr;
}

std::vector<Volume*> Machine::Volumes() {
    std::vector<Volume*> all;
    if (boot_ == nullptr) return all;
    for (auto& [number, volume] : boot_->volumes) all.push_back(volume.get());
    return all;
}

std::map<unsigned, KnownVolume> Machine::KnownVolumes() const {
    if (boot_ == nullptr || !boot_->numbers) return {};
    return boot_->numbers->Known();
}

std::vector<Volume*> Machine::VolumesOn(unsigned disk) {
    std::vector<Volume*> all = Volumes();
    std::erase_if(all, [&](const Volume* volume) { return volume->device->DiskNumber() != disk; });
    return all;
}

DiskDevice* Machine::DiskOf(unsigned number) {
    return number < disks_.size() ? disks_[number].device.get() : nullptr;
}

PFILE_OBJECT Machine::FileObjectOf(unsigned number, std::u16string_view fileName, ULONG flags) {
    Volume* volume = VolumeOf(number);
    if (volume == nullptr) return nullptr;
    std::lock_guard hold(boot_->rawLock);
    std::unique_ptr<RawFile>& file = boot_->rawFiles[{number, std::u16string(fileName), flags}];
    if (file == nullptr) {
        file = std::make_unique<RawFile>();
        file->name = fileName;
        file->object.DeviceObject = volume->device->Device();
        file->object.Vpb = volume->device->Vpb();
        file->object.Flags = flags;
        file->object.FileName = Counted(file->name);
    }
    return &file->object;
}

NTSTATUS Machine::Read(unsigned number, std::uint64_t offset, void* buffer, std::uint32_t length,
                       std::u16string_view fileName) {
    const Use use(*this);
    if (!use) return STATUS_DEVICE_POWERED_OFF;
    Volume* volume = VolumeOf(number);
    if (volume == nullptr) return STATUS_NO_SUCH_DEVICE;
    return volume->io->Read(offset, buffer, length,
                            fileName.empty() ? nullptr : FileObjectOf(number, fileName));
}

NTSTATUS Machine::Write(unsigned number, std::uint64_t offset, const void* buffer, std::uint32_t length,
                        std::u16string_view fileName) {
    const Use use(*this);
    if (!use) return STATUS_DEVICE_POWERED_OFF;
    Volume* volume = VolumeOf(number);
    if (volume == nullptr) return STATUS_NO_SUCH_DEVICE;
    return volume->io->Write(offset, buffer, length,
                             fileName.empty() ? nullptr : FileObjectOf(number, fileName));
}

NTSTATUS Machine::Flush(unsigned number) {
    const Use use(*this);
    if (!use) return STATUS_DEVICE_POWERED_OFF;
    Volume* volume = VolumeOf(number);
    return volume == nullptr ? STATUS_NO_SUCH_DEVICE : volume->io->Flush();
}

NTSTATUS Machine::Control(std::u16string_view device, ULONG code, const void* input, ULONG inputLength,
                          void* output, ULONG outputLength, ULONG& returned) {
    returned = 0;
    const Use use(*this);
    if (!use) return STATUS_DEVICE_POWERED_OFF;
    PFILE_OBJECT file = nullptr;
    NTSTATUS status = host::OpenDevice(device, FILE_READ_DATA | FILE_WRITE_DATA, file);
    if (!NT_SUCCESS(status)) return status;
    status = host::DeviceIoControl(file, code, input, inputLength, output, outputLength, returned);
    host::CloseDevice(file);
    return status;
}

}  // namespace machine
