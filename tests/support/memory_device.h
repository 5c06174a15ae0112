// A disk in memory as a device of the host kernel, for tests of driver routines that work on a lower device. It
// keeps a list of the transfers that reached it, can fail the ones that touch a range, and can complete them
// from a thread of its own.
#pragma once
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>
#include "platform/host/io/device.h"
#include "platform/host/check/injector.h"

namespace support {

struct Transfer {
    UCHAR major;
    LONGLONG offset;
    ULONG length;
    bool operator==(const Transfer&) const = default;
};

class MemoryDevice {
public:
    MemoryDevice(PDRIVER_OBJECT driver, std::size_t bytes) : bytes_(bytes) {
        driver->MajorFunction[IRP_MJ_READ] = Dispatch;
        driver->MajorFunction[IRP_MJ_WRITE] = Dispatch;
        if (!NT_SUCCESS(
                IoCreateDevice(driver, sizeof(MemoryDevice*), nullptr, FILE_DEVICE_DISK, 0, FALSE, &device_)))
            std::abort();
        *static_cast<MemoryDevice**>(device_->DeviceExtension) = this;
        device_->Flags |= DO_DIRECT_IO;
        device_->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    }
    ~MemoryDevice() { IoDeleteDevice(device_); }
    MemoryDevice(const MemoryDevice&) = delete;
    MemoryDevice& operator=(const MemoryDevice&) = delete;

    PDEVICE_OBJECT Object() const { return device_; }
    std::uint8_t* At(LONGLONG offset) { return bytes_.data() + offset; }
    std::vector<std::uint8_t> Copy() const { return bytes_; }

    // From now on transfers of that kind that touch a byte at or behind `from` and below `to` fail.
    void FailRange(UCHAR major, LONGLONG from, LONGLONG to, NTSTATUS status) {
        fail_ = {major, from, to, status};
    }
    void PendAlways(bool pend) { pend_ = pend; }
    // Called before each transfer, on the thread that sends it.
    void Before(std::function<void(const Transfer&)> hook) { before_ = std::move(hook); }

    std::vector<Transfer> TakeTransfers() {
        const std::lock_guard lock(mutex_);
        return std::exchange(transfers_, {});
    }

private:
    struct Failure {
        UCHAR major = 0;
        LONGLONG from = 0, to = 0;
        NTSTATUS status = STATUS_SUCCESS;
    };

    static NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp) {
        MemoryDevice* self = *static_cast<MemoryDevice**>(device->DeviceExtension);
        const IO_STACK_LOCATION* stack = IoGetCurrentIrpStackLocation(irp);
        const Transfer transfer{stack->MajorFunction, stack->Parameters.Read.ByteOffset.QuadPart,
                                stack->Parameters.Read.Length};
        if (self->before_) self->before_(transfer);
        if (!self->pend_) {
            self->Carry(irp, transfer);
            const NTSTATUS status = irp->IoStatus.Status;
            IoCompleteRequest(irp, IO_NO_INCREMENT);
            return status;
        }
        IoMarkIrpPending(irp);
        std::thread([=] {
            self->Carry(irp, transfer);
            IoCompleteRequest(irp, IO_NO_INCREMENT);
        }).detach();
        return STATUS_PENDING;
    }

    void Carry(PIRP irp, const Transfer& transfer) {
        const host::FaultPause pause;  // the device's own work
        const std::lock_guard lock(mutex_);
        transfers_.push_back(transfer);
        const LONGLONG end = transfer.offset + transfer.length;
        irp->IoStatus.Information = 0;
        if (transfer.offset < 0 || end > static_cast<LONGLONG>(bytes_.size()) || transfer.offset % 512 != 0) {
            irp->IoStatus.Status = STATUS_INVALID_PARAMETER;
            return;
        }
        if (fail_.status != STATUS_SUCCESS && fail_.major == transfer.major && transfer.offset < fail_.to &&
            end > fail_.from) {
            irp->IoStatus.Status = fail_.status;
            return;
        }
        irp->IoStatus.Status = STATUS_SUCCESS;
        irp->IoStatus.Information = transfer.length;
        if (transfer.length == 0) return;
        void* buffer = MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
        if (transfer.major == IRP_MJ_READ)
            std::memcpy(buffer, At(transfer.offset), transfer.length);
        else
            std::memcpy(At(transfer.offset), buffer, transfer.length);
    }

    PDEVICE_OBJECT device_ = nullptr;
    std::vector<std::uint8_t> bytes_;
    std::mutex mutex_;
    std::vector<Transfer> transfers_;
    Failure fail_;
    bool pend_ = false;
    std::function<void(const Transfer&)> before_;
};

}  // namespace support
