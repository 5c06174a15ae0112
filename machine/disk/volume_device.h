// A volume of the machine: one partition as a device of its own. Its requests are translated and go on to the
// top of the disk's stack, in the same IRP and over the same buffer, so that filters of the disk see them.
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include "machine/disk/data_sets.h"
#include "machine/disk/disk_device.h"

namespace machine {

class VolumeDevice {
public:
    // Creates \Device\HarddiskVolume<number> over bytes [offset, offset + length) of the disk, above what is
    // attached to the disk now. The disk outlives the volume. As with a disk, the device object goes before
    // this object does.
    [[nodiscard]] static NTSTATUS Create(PDRIVER_OBJECT driver, const DiskDevice& disk, unsigned number,
                                         std::uint64_t offset, std::uint64_t length,
                                         std::unique_ptr<VolumeDevice>& volume);
    // Installs the volume's dispatch routines.
    static void Fill(PDRIVER_OBJECT driver);
    VolumeDevice(const VolumeDevice&) = delete;
    VolumeDevice& operator=(const VolumeDevice&) = delete;

    PDEVICE_OBJECT Device() const { return device_; }
    PVPB Vpb() { return &vpb_; }
    const std::u16string& Name() const { return name_; }  // \Device\HarddiskVolume1
    unsigned Number() const { return number_; }
    unsigned DiskNumber() const { return disk_.Number(); }
    bool Removable() const { return disk_.Removable(); }
    std::uint64_t Offset() const { return offset_; }  // bytes on the disk
    std::uint64_t Length() const { return length_; }  // bytes
    std::uint32_t SectorSize() const { return disk_.Medium().SectorSize(); }

    // The top of the disk's stack is referenced, because a disk's filter may detach and delete itself while
    // requests still come from above. Retarget() follows the stack as it is now; DropTargets() gives the
    // references back when no more requests come.
    void Retarget();
    void DropTargets();

private:
    VolumeDevice(const DiskDevice& disk, unsigned number, std::uint64_t offset, std::uint64_t length);

    static NTSTATUS DispatchTransfer(PDEVICE_OBJECT device, PIRP irp);
    static NTSTATUS DispatchControl(PDEVICE_OBJECT device, PIRP irp);
    static NTSTATUS DispatchPassDown(PDEVICE_OBJECT device, PIRP irp);
    static NTSTATUS DispatchPnp(PDEVICE_OBJECT device, PIRP irp);
    static NTSTATUS DispatchPower(PDEVICE_OBJECT device, PIRP irp);
    static NTSTATUS DispatchSucceed(PDEVICE_OBJECT device, PIRP irp);

    bool Holds(const DataSetRange& range) const;
    NTSTATUS AnswerExtents(PIRP irp) const;
    NTSTATUS PassDown(PIRP irp) const;

    PDEVICE_OBJECT device_ = nullptr;
    VPB vpb_{};
    std::u16string name_;
    const DiskDevice& disk_;
    const unsigned number_;
    const std::uint64_t offset_;
    const std::uint64_t length_;
    std::atomic<PDEVICE_OBJECT> target_{nullptr};
    std::vector<PDEVICE_OBJECT> referenced_;
};

}  // namespace machine
