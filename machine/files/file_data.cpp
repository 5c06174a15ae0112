#include "machine/files/file_data.h"
#include <algorithm>
#include <cstring>
#include <mutex>

namespace machine {

NTSTATUS FileData::Load() {
    return volume_.Look([&](VolumeFormat& format) { return format.LoadShape(id_, shape_); });
}

NTSTATUS FileData::Read(PFILE_OBJECT file, std::uint64_t offset, void* buffer, ULONG length, ULONG& done) {
    done = 0;
    NTSTATUS status = Reconnect();
    if (!NT_SUCCESS(status)) return status;
    const std::shared_lock shared(content_);
    status = Connected();
    if (!NT_SUCCESS(status) || length == 0) return status;
    if (offset >= shape_.size) return STATUS_END_OF_FILE;
    length = static_cast<ULONG>(std::min<std::uint64_t>(length, shape_.size - offset));
    status = ReadRange(file, offset, buffer, length);
    if (NT_SUCCESS(status)) done = length;
    return status;
}

NTSTATUS FileData::ReadRange(PFILE_OBJECT file, std::uint64_t offset, void* buffer, ULONG length) {
    if (shape_.resident || shape_.special) {
        const host::HostGuard guard(volume_.Lock());
        return volume_.Look(
            file, [&](VolumeFormat& format) { return format.ReadByLibrary(id_, offset, buffer, length); });
    }
    const std::uint64_t defined = offset < shape_.initialized ? shape_.initialized - offset : 0;
    const auto stored = static_cast<ULONG>(std::min<std::uint64_t>(length, defined));
    std::memset(static_cast<std::uint8_t*>(buffer) + stored, 0, length - stored);
    return stored > 0 ? shape_.runs.Read(volume_.Io(), file, offset, buffer, stored) : STATUS_SUCCESS;
}

NTSTATUS FileData::Write(PFILE_OBJECT file, std::uint64_t offset, const void* buffer, ULONG length,
                         ULONG& done) {
    done = 0;
    if (length == 0) return STATUS_SUCCESS;
    const std::uint32_t sector = volume_.Io().SectorSize();
    const FileWrite write{file, offset, buffer, length};
    NTSTATUS status = Reconnect();
    if (!NT_SUCCESS(status)) return status;
    bool written = false;
    if (offset % sector == 0 && length % sector == 0) {
        const std::shared_lock shared(content_);
        written = NT_SUCCESS(Connected()) && shape_.Holds(offset, length);
        if (written) status = WriteInPlace(write);
    }
    if (!written) status = WriteAnywhere(write);
    if (!NT_SUCCESS(status)) return status;
    touched_.store(true, std::memory_order_relaxed);
    done = length;
    return STATUS_SUCCESS;
}

NTSTATUS FileData::WriteInPlace(const FileWrite& write) {
    return shape_.runs.Write(volume_.Io(), write.file, write.offset, write.buffer, write.length,
                             shape_.initialized);
}

NTSTATUS FileData::WriteAnywhere(const FileWrite& write) {
    const std::unique_lock exclusive(content_);
    const NTSTATUS status = Connected();
    if (!NT_SUCCESS(status)) return status;
    if (shape_.Holds(write.offset, write.length)) return WriteInPlace(write);
    return shape_.special ? WriteByLibrary(write) : Extend(write);
}

NTSTATUS FileData::WriteByLibrary(const FileWrite& write) {
    if (!volume_.Traits().writesSpecial) return STATUS_NOT_SUPPORTED;
    const host::HostGuard guard(volume_.Lock());
    const NTSTATUS status = volume_.Change(CommitOrder::TakeFirst, write.file, [&](VolumeFormat& format) {
        return format.WriteByLibrary(id_, write.offset, write.buffer, write.length);
    });
    if (!NT_SUCCESS(status)) return status;
    return volume_.Look([&](VolumeFormat& format) { return format.LoadShape(id_, shape_); });
}

NTSTATUS FileData::Extend(const FileWrite& write) {
    FileShape shape = shape_;
    const host::HostGuard guard(volume_.Lock());
    const NTSTATUS status =
        volume_.Change(CommitOrder::TakeFirst, MountedVolume::Owner::FileMetadata,
                       [&](VolumeFormat& format) { return format.Extend(id_, write, shape); });
    if (NT_SUCCESS(status)) shape_ = std::move(shape);
    return status;
}

NTSTATUS FileData::Truncate(ULONG attributes) {
    NTSTATUS status = Reconnect();
    if (!NT_SUCCESS(status)) return status;
    const std::unique_lock exclusive(content_);
    status = Connected();
    if (!NT_SUCCESS(status)) return status;
    FileShape shape;
    const host::HostGuard guard(volume_.Lock());
    status =
        volume_.Change(CommitOrder::RemoveFirst, MountedVolume::Owner::FileMetadata, [&](VolumeFormat& format) {
            const NTSTATUS emptied = format.Empty(id_, attributes);
            return NT_SUCCESS(emptied) ? format.LoadShape(id_, shape) : emptied;
        });
    if (!NT_SUCCESS(status)) return status;
    shape_ = std::move(shape);
    touched_.store(true, std::memory_order_relaxed);
    return STATUS_SUCCESS;
}

void FileData::Disconnect() {
    const std::unique_lock exclusive(content_);
    connection_ = Connection::Gone;
}

void FileData::Suspend() {
    const std::unique_lock exclusive(content_);
    touched_.store(false, std::memory_order_relaxed);  // what was due was brought up to date before
    if (connection_ != Connection::Gone) connection_ = Connection::Suspended;
}

void FileData::Resume() {
    const std::unique_lock exclusive(content_);
    if (connection_ == Connection::Suspended) connection_ = Connection::Stale;
}

NTSTATUS FileData::Connected() const {
    switch (connection_.load(std::memory_order_relaxed)) {
        case Connection::Connected:
            return STATUS_SUCCESS;
        case Connection::Gone:
            return STATUS_DEVICE_NOT_READY;
        default:
            return STATUS_DEVICE_BUSY;
    }
}

// A file whose number is free or another one's by now is gone for good; what else fails may work the next time.
NTSTATUS FileData::Reconnect() {
    if (connection_.load(std::memory_order_relaxed) != Connection::Stale) return STATUS_SUCCESS;
    const std::unique_lock exclusive(content_);
    if (connection_ != Connection::Stale) return STATUS_SUCCESS;
    const host::HostGuard guard(volume_.Lock());
    FileShape shape;
    const NTSTATUS status = volume_.Look([&](VolumeFormat& format) { return format.LoadShape(id_, shape); });
    if (NT_SUCCESS(status)) {
        shape_ = std::move(shape);
        connection_ = Connection::Connected;
    } else if (status == STATUS_FILE_CORRUPT_ERROR) {
        connection_ = Connection::Gone;
        return STATUS_DEVICE_NOT_READY;
    }
    return status;
}

}  // namespace machine
