// A disk of the machine as clients see it: one range of bytes, each request cut at the volumes' boundaries and
// its parts sent to the stacks that they belong to.
#pragma once
#include <memory>
#include "machine/boot/machine.h"
#include "machine/disk/host_disk.h"
#include "nbd/byte_access.h"
#include "nbd/disk_map.h"

namespace nbd {

class ServedDisk final : private SectorTarget {
public:
    ServedDisk(std::shared_ptr<machine::HostDisk> medium, unsigned number);

    // A boot begins: learns the volumes and stacks that it made. Until EndBoot() any number of threads may
    // transfer; the machine's boot must last as long. A partition table that a client rewrites meanwhile holds
    // from the next boot on.
    void BeginBoot(machine::Machine& machine);
    void EndBoot() { machine_ = nullptr; }

    // Writes fail with STATUS_MEDIA_WRITE_PROTECTED from now on, or are served again. Between boots or under
    // the boot's lock held alone.
    void SetReadOnly(bool readOnly) { readOnly_ = readOnly; }

    std::uint64_t Size() const { return medium_->Size(); }
    bool LacksRoom() const { return medium_->LacksRoom(); }
    // Of the image, as ImageDisk has them.
    int Failure() const { return medium_->Failure(); }
    void ForgetFailure() { medium_->ForgetFailure(); }
    const DiskMap& Map() const { return map_; }

    // Byte ranges inside the disk, of any alignment.
    [[nodiscard]] NTSTATUS ReadBytes(std::uint64_t offset, void* buffer, std::uint64_t length);
    [[nodiscard]] NTSTATUS WriteBytes(std::uint64_t offset, const void* buffer, std::uint64_t length);
    [[nodiscard]] NTSTATUS ZeroBytes(std::uint64_t offset, std::uint64_t length);
    // Every volume's stack, then the disk's: the image has what was written when it returns.
    [[nodiscard]] NTSTATUS Flush();

private:
    NTSTATUS Read(std::uint64_t offset, void* buffer, std::uint64_t length) override;
    NTSTATUS Write(std::uint64_t offset, const void* buffer, std::uint64_t length) override;
    [[nodiscard]] NTSTATUS Transfer(UCHAR major, std::uint64_t offset, std::uint8_t* buffer,
                                    std::uint64_t length);
    [[nodiscard]] NTSTATUS SendPiece(UCHAR major, const Piece& piece, std::uint8_t* buffer);
    [[nodiscard]] NTSTATUS SendToDisk(UCHAR major, std::uint64_t offset, void* buffer, std::uint64_t length);

    const std::shared_ptr<machine::HostDisk> medium_;
    const unsigned number_;
    ByteAccess bytes_;
    bool readOnly_ = false;
    machine::Machine* machine_ = nullptr;  // null between boots
    PDEVICE_OBJECT top_ = nullptr;         // of the disk's own stack
    DiskMap map_;
};

}  // namespace nbd
