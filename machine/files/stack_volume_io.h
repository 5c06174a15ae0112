// The way from a file system to its volume: requests to the top of the volume's stack.
#pragma once
#include <atomic>
#include "machine/disk/volume_device.h"
#include "machine/files/volume_io.h"

namespace machine {

// Thread-safe. The volume and what is attached to it outlive this object or its Close().
class StackVolumeIo final : public VolumeIo {
public:
    // Remembers the top of the stack as it is now.
    explicit StackVolumeIo(VolumeDevice& volume);

    std::uint32_t SectorSize() const override { return volume_.SectorSize(); }
    std::uint64_t Size() const override { return volume_.Length(); }
    [[nodiscard]] NTSTATUS Read(std::uint64_t offset, void* buffer, std::uint32_t length,
                                PFILE_OBJECT file) override;
    [[nodiscard]] NTSTATUS Write(std::uint64_t offset, const void* buffer, std::uint32_t length,
                                 PFILE_OBJECT file) override;
    [[nodiscard]] NTSTATUS Flush() override;
    void Trim(std::uint64_t offset, std::uint64_t length) override;
    PDEVICE_OBJECT Device() const override { return volume_.Device(); }
    PVPB Vpb() const override { return volume_.Vpb(); }

    // From now on every request fails with STATUS_DEVICE_POWERED_OFF and none is sent.
    void Close() { open_.store(false, std::memory_order_release); }

private:
    NTSTATUS Transfer(UCHAR major, std::uint64_t offset, void* buffer, std::uint32_t length, PFILE_OBJECT file);

    VolumeDevice& volume_;
    PDEVICE_OBJECT top_;
    std::atomic<bool> open_{true};
};

}  // namespace machine
