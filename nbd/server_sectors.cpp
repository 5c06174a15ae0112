// A volume's sectors for a tool, below the driver and above it. One request at a time shares the boot, as a
// client's does: neither clients nor a reboot wait for the end of a whole comparison.
#include <shared_mutex>
#include "nbd/server.h"

namespace nbd {
namespace {

bool IsInside(const machine::VolumeDevice& device, std::uint64_t offset, std::size_t length) {
    const std::uint32_t sector = device.SectorSize();
    return offset % sector == 0 && length % sector == 0 && offset <= device.Length() &&
           length <= device.Length() - offset;
}

}  // namespace

NTSTATUS Server::ReadSectors(const std::u16string& name, std::uint64_t offset,
                             std::vector<std::uint8_t>& bytes) {
    const std::shared_lock hold(boot_);
    machine::Volume* volume = on_ ? machine_->VolumeNamed(name) : nullptr;
    if (volume == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
    const machine::VolumeDevice& device = *volume->device;
    if (!IsInside(device, offset, bytes.size())) return STATUS_INVALID_PARAMETER;
    return machine_->MediumOf(device.DiskNumber()).Read(device.Offset() + offset, bytes.data(), bytes.size());
}

NTSTATUS Server::ReadPresent(const std::u16string& name, std::uint64_t offset,
                             std::vector<std::uint8_t>& bytes) {
    const std::shared_lock hold(boot_);
    machine::Volume* volume = on_ ? machine_->VolumeNamed(name) : nullptr;
    if (volume == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
    const machine::VolumeDevice& device = *volume->device;
    if (!IsInside(device, offset, bytes.size())) return STATUS_INVALID_PARAMETER;
    return machine_->Read(device.Number(), offset, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

}  // namespace nbd
