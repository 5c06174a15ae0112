// A disk whose volumes a machine without the driver mounts only to look at them. A mount may want to mend what
// it finds; here it cannot.
#pragma once
#include <memory>
#include <utility>
#include "machine/disk/disk.h"

namespace nbd {

class LookedAt final : public machine::Disk {
public:
    explicit LookedAt(std::shared_ptr<machine::Disk> disk) : disk_(std::move(disk)) {}
    std::uint64_t Size() const override { return disk_->Size(); }
    std::uint32_t SectorSize() const override { return disk_->SectorSize(); }
    NTSTATUS Read(std::uint64_t offset, void* buffer, std::size_t length) override {
        return disk_->Read(offset, buffer, length);
    }
    NTSTATUS Write(std::uint64_t, const void*, std::size_t) override { return STATUS_MEDIA_WRITE_PROTECTED; }
    NTSTATUS Flush() override { return STATUS_SUCCESS; }

private:
    const std::shared_ptr<machine::Disk> disk_;
};

}  // namespace nbd
