// How a file system on the hosted machine reaches its volume: requests enter at the top of the volume's
// device stack, so every filter sees them, and carry the file object that they are made for.
#pragma once
#include <cstdint>
#include "platform/kernel.h"

namespace machine {

class VolumeIo {
public:
    virtual ~VolumeIo() = default;
    virtual std::uint32_t SectorSize() const = 0;  // bytes
    virtual std::uint64_t Size() const = 0;        // bytes, whole sectors
    // Non-cached transfers of whole sectors. `file` may be null (no file object).
    [[nodiscard]] virtual NTSTATUS Read(std::uint64_t offset, void* buffer, std::uint32_t length,
                                        PFILE_OBJECT file) = 0;
    [[nodiscard]] virtual NTSTATUS Write(std::uint64_t offset, const void* buffer, std::uint32_t length,
                                         PFILE_OBJECT file) = 0;
    [[nodiscard]] virtual NTSTATUS Flush() = 0;
    // Tells the disk that nobody needs these whole sectors any more. Whether it listens is its own matter.
    virtual void Trim(std::uint64_t offset, std::uint64_t length) = 0;
    // The volume's device and parameter block, for the file objects that requests carry.
    virtual PDEVICE_OBJECT Device() const = 0;
    virtual PVPB Vpb() const = 0;
};

}  // namespace machine
