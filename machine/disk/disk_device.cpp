#include "machine/disk/disk_device.h"
#include <algorithm>
#include "platform/host/check/injector.h"
#include "machine/disk/data_sets.h"
#include "machine/disk/device_support.h"
#include "machine/disk/held_reads.h"
#include "platform/host/check/host_memory.h"
#include "platform/host/sync/sync.h"

namespace machine {
namespace {

constexpr unsigned kWorkers = 2;  // two, so that completions of one disk also race with each other

bool IsOnDisk(std::uint64_t offset, ULONG length, const Disk& medium) {
    const std::uint32_t sector = medium.SectorSize();
    return offset <= medium.Size() && length <= medium.Size() - offset && offset % sector == 0 &&
           length % sector == 0;
}

// The file's program keeps its data in memory of its own.
bool IsUnbuffered(const IO_STACK_LOCATION& location) {
    return location.FileObject != nullptr && (location.FileObject->Flags & FO_NO_INTERMEDIATE_BUFFERING) != 0;
}

}  // namespace

NTSTATUS DiskDevice::Create(PDRIVER_OBJECT driver, std::shared_ptr<Disk> medium, unsigned number,
                            bool removable, std::unique_ptr<DiskDevice>& disk) {
    if (!IsValidSectorSize(medium->SectorSize())) return STATUS_INVALID_PARAMETER;
    std::unique_ptr<DiskDevice> made(new DiskDevice(std::move(medium), number, removable));
    const std::u16string digits = Decimal(number);
    const NTSTATUS status =
        CreatePhysicalDevice(driver, u"\\Device\\Harddisk" + digits + u"\\DR" + digits, made.get(), removable,
                             made->medium_->SectorSize(), true, made->device_);
    if (NT_SUCCESS(status)) disk = std::move(made);
    return status;
}

void DiskDevice::Fill(PDRIVER_OBJECT driver) {
    for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE, IRP_MJ_SHUTDOWN}) {
        driver->MajorFunction[major] = DispatchSucceed;
    }
    for (UCHAR major : {IRP_MJ_READ, IRP_MJ_WRITE, IRP_MJ_FLUSH_BUFFERS}) {
        driver->MajorFunction[major] = DispatchTransfer;
    }
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = DispatchControl;
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = DispatchControl;
    driver->MajorFunction[IRP_MJ_PNP] = DispatchPnp;
    driver->MajorFunction[IRP_MJ_POWER] = DispatchPower;
}

DiskDevice::DiskDevice(std::shared_ptr<Disk> medium, unsigned number, bool removable)
    : medium_(std::move(medium)), number_(number), removable_(removable) {}

DiskDevice::~DiskDevice() {
    Stop();
}

DiskDevice& DiskDevice::Of(PDEVICE_OBJECT device) {
    return ExtensionOf<DiskDevice>(device);
}

// ---- requests --------------------------------------------------------------------------------------------

NTSTATUS DiskDevice::DispatchTransfer(PDEVICE_OBJECT device, PIRP irp) {
    DiskDevice& disk = Of(device);
    if (disk.mode_.load(std::memory_order_acquire) != Completion::Immediate && disk.Queue(irp)) {
        return STATUS_PENDING;
    }
    ULONG_PTR information = 0;
    const NTSTATUS status = disk.Transfer(irp, true, nullptr, information);
    if (status != STATUS_PENDING) return Complete(irp, status, information);
    disk.Hold(irp);
    return STATUS_PENDING;
}

NTSTATUS DiskDevice::DispatchControl(PDEVICE_OBJECT device, PIRP irp) {
    ULONG_PTR information = 0;
    const NTSTATUS status = host::WithinMemory([&] { return Of(device).Control(irp, information); });
    return Complete(irp, status, information);
}

NTSTATUS DiskDevice::DispatchPnp(PDEVICE_OBJECT, PIRP irp) {
    return CompletePnp(irp);
}

NTSTATUS DiskDevice::DispatchPower(PDEVICE_OBJECT, PIRP irp) {
    return CompletePower(irp);
}

NTSTATUS DiskDevice::DispatchSucceed(PDEVICE_OBJECT, PIRP irp) {
    return Complete(irp, STATUS_SUCCESS);
}

NTSTATUS DiskDevice::Transfer(PIRP irp, bool mayWait, ReadUnderWay* begun, ULONG_PTR& information) {
    if (host::InjectFault(host::Fault::LowerIo)) return STATUS_IO_DEVICE_ERROR;
    const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
    if (location.MajorFunction == IRP_MJ_FLUSH_BUFFERS) return medium_->Flush();
    const auto offset = static_cast<std::uint64_t>(location.Parameters.Read.ByteOffset.QuadPart);
    const ULONG length = location.Parameters.Read.Length;
    if (!IsOnDisk(offset, length, *medium_)) return STATUS_INVALID_PARAMETER;
    if (length == 0) return STATUS_SUCCESS;
    const bool read = location.MajorFunction == IRP_MJ_READ;
    const DirectBuffer buffer(irp, read ? IoWriteAccess : IoReadAccess);
    if (!NT_SUCCESS(buffer.Status())) return buffer.Status();
    const auto write = IsUnbuffered(location) ? &Disk::WriteAside : &Disk::Write;
    const NTSTATUS status = !read     ? (*medium_.*write)(offset, buffer.Get(), length)
                            : begun   ? begun->End(buffer.Get())
                            : mayWait ? medium_->ReadAtOnce(offset, buffer.Get(), length)
                                      : medium_->Read(offset, buffer.Get(), length);
    if (status == STATUS_PENDING) return status;
    if (NT_SUCCESS(status)) information = length;
    return status;
}

NTSTATUS DiskDevice::Control(PIRP irp, ULONG_PTR& information) {
    switch (IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode) {
        case IOCTL_DISK_IS_WRITABLE:
            return STATUS_SUCCESS;
        case IOCTL_DISK_GET_LENGTH_INFO: {
            LARGE_INTEGER size;
            size.QuadPart = static_cast<LONGLONG>(medium_->Size());
            return Answer(irp, &size, sizeof size, information);
        }
        case IOCTL_DISK_GET_DRIVE_GEOMETRY: {
            DISK_GEOMETRY geometry{};
            geometry.MediaType = removable_ ? RemovableMedia : FixedMedia;
            geometry.TracksPerCylinder = 255;
            geometry.SectorsPerTrack = 63;
            geometry.BytesPerSector = medium_->SectorSize();
            geometry.Cylinders.QuadPart =
                static_cast<LONGLONG>(medium_->Size() / (255ull * 63 * medium_->SectorSize()));
            return Answer(irp, &geometry, sizeof geometry, information);
        }
        case IOCTL_STORAGE_GET_DEVICE_NUMBER: {
            const STORAGE_DEVICE_NUMBER told{FILE_DEVICE_DISK, number_, 0};
            return Answer(irp, &told, sizeof told, information);
        }
        case IOCTL_STORAGE_MANAGE_DATA_SET_ATTRIBUTES:
            return trims_ ? Trim(irp) : STATUS_INVALID_DEVICE_REQUEST;
        default:
            return STATUS_INVALID_DEVICE_REQUEST;
    }
}

NTSTATUS DiskDevice::Trim(PIRP irp) {
    constexpr ULONGLONG kPart = 0x10000;
    static const UCHAR zeros[kPart]{};
    for (const DataSetRange& range : TrimRanges(irp)) {
        for (ULONGLONG done = 0; done < range.length; done += kPart) {
            const auto at = static_cast<std::uint64_t>(range.offset) + done;
            const auto part = static_cast<ULONG>(std::min(kPart, range.length - done));
            if (!IsOnDisk(at, part, *medium_)) return STATUS_INVALID_PARAMETER;
            const NTSTATUS status = medium_->Write(at, zeros, part);
            if (!NT_SUCCESS(status)) return status;
        }
    }
    return STATUS_SUCCESS;
}

// ---- completion on other threads -------------------------------------------------------------------------

bool DiskDevice::Queue(PIRP irp) {
    std::lock_guard hold(lock_);
    if (stopping_ || mode_.load(std::memory_order_relaxed) == Completion::Immediate) return false;
    IoMarkIrpPending(irp);
    waiting_.push_back(irp);
    changed_.notify_all();
    return true;
}

void DiskDevice::CarryOut(PIRP irp, ReadUnderWay* begun) {
    ULONG_PTR information = 0;
    const NTSTATUS status = Transfer(irp, false, begun, information);
    // As after an interrupt: whoever waits above must cope with DISPATCH_LEVEL.
    const KIRQL before = host::SetIrql(DISPATCH_LEVEL);
    Complete(irp, status, information);
    host::SetIrql(before);
}

void DiskDevice::Hold(PIRP irp) {
    const auto& read = IoGetCurrentIrpStackLocation(irp)->Parameters.Read;
    const auto offset = static_cast<std::uint64_t>(read.ByteOffset.QuadPart);
    IoMarkIrpPending(irp);
    HoldRead(irp, CarryOutHeld, medium_->BeginRead(offset, read.Length).release());
}

void DiskDevice::CarryOutHeld(PIRP irp, void* context) {
    const std::unique_ptr<ReadUnderWay> begun(static_cast<ReadUnderWay*>(context));
    Of(IoGetCurrentIrpStackLocation(irp)->DeviceObject).CarryOut(irp, begun.get());
}

void DiskDevice::Work() {
    std::unique_lock hold(lock_);
    for (;;) {
        const bool pended = mode_.load(std::memory_order_relaxed) != Completion::Stepped;
        if (pended && !waiting_.empty()) {
            const PIRP irp = waiting_.front();
            waiting_.pop_front();
            hold.unlock();
            CarryOut(irp);
            hold.lock();
        } else if (stopping_) {
            return;
        } else {
            changed_.wait(hold);
        }
    }
}

void DiskDevice::SetCompletion(Completion mode) {
    std::lock_guard hold(lock_);
    if (stopping_) return;
    mode_.store(mode, std::memory_order_release);
    // Started once a request may need them, also to release what waits when stepping ends.
    while (mode != Completion::Immediate && workers_.size() < kWorkers)
        workers_.emplace_back([this] { Work(); });
    changed_.notify_all();
}

void DiskDevice::WaitForWaiting(std::size_t count) {
    std::unique_lock hold(lock_);
    changed_.wait(hold, [&] { return waiting_.size() >= count || stopping_; });
}

bool DiskDevice::Release(std::size_t index) {
    PIRP irp = nullptr;
    {
        std::lock_guard hold(lock_);
        if (index >= waiting_.size()) return false;
        irp = waiting_[index];
        waiting_.erase(waiting_.begin() + static_cast<std::ptrdiff_t>(index));
    }
    CarryOut(irp);
    return true;
}

void DiskDevice::ReleaseAll() {
    while (Release()) {
    }
}

void DiskDevice::Stop() {
    std::vector<std::thread> ended;
    {
        std::lock_guard hold(lock_);
        stopping_ = true;
        mode_.store(Completion::Immediate, std::memory_order_release);
        ended.swap(workers_);
        changed_.notify_all();
    }
    for (std::thread& worker : ended) worker.join();
    ReleaseAll();
}

}  // namespace machine
