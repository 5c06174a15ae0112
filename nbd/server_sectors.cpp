// A volume's sectors for a tool, below the driver and above it. One request at a time shares the boot, as a
// client's does: neither clients nor a reboot wait for the end of a whole comparison.
#include <shared_mutex>
#include "nbd/server.h"

namespace nbd {
namespace {

// The volume of that name, null when there is none or the machine is off; the range must be whole sectors of
// it.
NTSTATUS Find(machine::Machine* machine, const std::u16string& name, std::uint64_t offset, std::size_t length,
              const machine::VolumeDevice*& device) {
    const machine::Volume* volume = machine != nullptr ? machine->VolumeNamed(name) : nullptr;
    if (volume == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
    device = volume->device.get();
    const std::uint32_t sector = device->SectorSize();
    const bool inside = offset % sector == 0 && length % sector == 0 && offset <= device->Length() &&
                        length <= device->Length() - offset;
    return inside ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

}  // namespace

NTSTATUS Server::ReadSectors(const std::u16string& name, std::uint64_t offset,
                             std::vector<std::uint8_t>& bytes) {
    const std::shared_lock hold(boot_);
    const machine::VolumeDevice* device = nullptr;
    const NTSTATUS found = Find(on_ ? machine_.get() : nullptr, name, offset, bytes.size(), device);
    if (!NT_SUCCESS(found)) return found;
    return machine_->MediumOf(device->DiskNumber()).Read(device->Offset() + offset, bytes.data(), bytes.size());
}

NTSTATUS Server::ReadPresent(const std::u16string& name, std::uint64_t offset,
                             std::vector<std::uint8_t>& bytes) {
    const std::shared_lock hold(boot_);
    const machine::VolumeDevice* device = nullptr;
    const NTSTATUS found = Find(on_ ? machine_.get() : nullptr, name, offset, bytes.size(), device);
    if (!NT_SUCCESS(found)) return found;
    return machine_->Read(device->Number(), offset, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

}  // namespace nbd
