// The hosted computer. This folder holds what stands around the driver on the host: disks and their devices,
// partition tables, volumes above the disks' stacks, file systems, the registry's store, and the machine
// that powers them on, shuts them down and cuts their power. Start with machine.h; this header is the
// bottom of the stack, a disk's medium.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include "platform/kernel.h"

namespace machine {

// A read that a disk has begun; destroyed before its end it is given up.
class ReadUnderWay {
public:
    virtual ~ReadUnderWay() = default;
    // Waits for the data, at most once, and puts it into a buffer of the read's length. The status is Read's.
    [[nodiscard]] virtual NTSTATUS End(void* buffer) = 0;
};

// A medium of whole sectors. Every range lies inside it and is sector-aligned: the disk's device checks
// that before it calls. Any number of threads may call at once; what two overlapping writes leave behind
// is one or the other, sector by sector.
class Disk {
public:
    virtual ~Disk() = default;
    virtual std::uint64_t Size() const = 0;        // bytes, a multiple of SectorSize()
    virtual std::uint32_t SectorSize() const = 0;  // bytes, 512 or 4096
    [[nodiscard]] virtual NTSTATUS Read(std::uint64_t offset, void* buffer, std::size_t length) = 0;
    // The same without waiting for the medium, as far as it can tell: STATUS_PENDING when it would have to, and
    // then what is missing is on its way to where Read finds it, or BeginRead has to be asked for it. The
    // buffer's content is undefined until then.
    [[nodiscard]] virtual NTSTATUS ReadAtOnce(std::uint64_t offset, void* buffer, std::size_t length) {
        return Read(offset, buffer, length);
    }
    // After that STATUS_PENDING: has the medium begin the read. Null: there is nothing to begin, or no memory
    // for it, and Read is as good.
    virtual std::unique_ptr<ReadUnderWay> BeginRead(std::uint64_t, std::size_t) { return nullptr; }
    [[nodiscard]] virtual NTSTATUS Write(std::uint64_t offset, const void* buffer, std::size_t length) = 0;
    // The same for data that nobody is going to read soon: the disk keeps as little of it in memory as it can.
    [[nodiscard]] virtual NTSTATUS WriteAside(std::uint64_t offset, const void* buffer, std::size_t length) {
        return Write(offset, buffer, length);
    }
    // Everything written before is on stable storage when this returns.
    [[nodiscard]] virtual NTSTATUS Flush() = 0;
};

inline bool IsValidSectorSize(std::uint32_t bytes) {
    return bytes == 512 || bytes == 4096;
}

}  // namespace machine
