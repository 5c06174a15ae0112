#include "machine/ntfs/file.h"
#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>
#include "machine/ntfs/directory.h"
#include "machine/ntfs/inode.h"
#include "machine/ntfs/library.h"

namespace machine {

using namespace ntfs_library;

namespace {

bool IsSpecial(const NtfsAttribute& data, const VolumeIo& io) {
    return NAttrCompressed(data.Get()) || NAttrEncrypted(data.Get()) || NAttrSparse(data.Get()) ||
           data->ni->vol->cluster_size % io.SectorSize() != 0;
}

// False with errno when the runs cannot be read or make no sense; a hole makes the file special.
bool CopyRuns(const NtfsAttribute& data, FileRuns& runs, bool& hole) {
    const ntfs_volume* volume = data->ni->vol;
    runs.Clear();
    hole = false;
    if (data->allocated_size == 0) return true;
    if (ntfs_attr_map_whole_runlist(data.Get()) != 0) return false;
    for (const runlist_element* run = data->rl; run->length > 0; ++run) {
        if (run->lcn == LCN_HOLE) hole = true;
        if (hole) continue;
        if (run->lcn < 0 || run->lcn + run->length > volume->nr_clusters) {
            errno = EIO;
            return false;
        }
        runs.Append(static_cast<std::uint64_t>(run->lcn) << volume->cluster_size_bits,
                    static_cast<std::uint64_t>(run->length) << volume->cluster_size_bits);
    }
    return true;
}

// Takes clusters up to `size`. The library takes one run per stretch of the bitmap that it looks at and then
// reports a full disk, so smaller and smaller steps are tried before that is believed.
bool Grow(const NtfsAttribute& data, s64 size) {
    ntfs_volume* volume = data->ni->vol;
    const s64 cluster = volume->cluster_size;
    if (size > volume->nr_clusters << volume->cluster_size_bits) {
        errno = ENOSPC;
        return false;
    }
    s64 step = size - data->data_size;
    while (data->data_size < size) {
        volume->full_zones = 0;
        const s64 target = std::min(size, data->data_size + step);
        if (ntfs_attr_truncate_solid(data.Get(), target) == 0) {
            step *= 2;
        } else if (errno == ENOSPC && step > cluster) {
            step = std::max(cluster, step / 2 / cluster * cluster);
        } else {
            return false;
        }
    }
    return true;
}

// Moves an empty or resident file's data out of the record, without a write of its own: what was there comes
// back in `old`.
bool MakeNonResident(const NtfsAttribute& data, std::vector<std::uint8_t>& old) {
    old.resize(static_cast<std::size_t>(data->data_size));
    const auto size = static_cast<s64>(old.size());
    if (size > 0 && ntfs_attr_pread(data.Get(), 0, size, old.data()) != size) return false;
    if (size > 0 && ntfs_attr_truncate(data.Get(), 0) != 0) return false;
    return ntfs_attr_force_non_resident(data.Get()) == 0;
}

bool SetInitializedSize(const NtfsAttribute& data, std::uint64_t size) {
    ntfs_attr_search_ctx* context = ntfs_attr_get_search_ctx(data->ni, nullptr);
    if (context == nullptr) return false;
    const bool found =
        ntfs_attr_lookup(data->type, data->name, data->name_len, CASE_SENSITIVE, 0, nullptr, 0, context) == 0;
    if (found) {
        data->initialized_size = static_cast<s64>(size);
        context->attr->initialized_size = cpu_to_sle64(static_cast<s64>(size));
        ntfs_inode_mark_dirty(context->ntfs_ino);
    }
    const int error = errno;
    ntfs_attr_put_search_ctx(context);
    errno = error;
    return found;
}

bool WriteAll(const NtfsAttribute& data, std::uint64_t offset, const void* buffer, ULONG length) {
    const auto* from = static_cast<const std::uint8_t*>(buffer);
    for (ULONG done = 0; done < length;) {
        const s64 part =
            ntfs_attr_pwrite(data.Get(), static_cast<s64>(offset + done), length - done, from + done);
        if (part == 0) errno = EIO;
        if (part <= 0) return false;
        done += static_cast<ULONG>(part);
    }
    return !NAttrCompressed(data.Get()) || ntfs_attr_pclose(data.Get()) == 0;
}

}  // namespace

// One write that reaches past what is initialised.
struct NtfsFile::Growth {
    PFILE_OBJECT file;
    std::uint64_t offset;
    const void* buffer;
    ULONG length;
};

NTSTATUS NtfsFile::LoadShape(const NtfsOperation& operation, Shape& shape) const {
    NtfsInode inode;
    const NTSTATUS status = OpenNtfsInode(operation, reference_, inode);
    if (!NT_SUCCESS(status)) return status;
    const NtfsAttribute data = NtfsAttribute::OpenData(inode);
    if (!data) return operation.Failed(errno);
    shape.size = static_cast<std::uint64_t>(data->data_size);
    shape.initialized = static_cast<std::uint64_t>(data->initialized_size);
    shape.resident = !NAttrNonResident(data.Get());
    shape.special = IsSpecial(data, operation.Io());
    shape.runs.Clear();
    if (shape.resident || shape.special) return STATUS_SUCCESS;
    if (!CopyRuns(data, shape.runs, shape.special)) return operation.Failed(errno);
    const bool covered = shape.special || shape.runs.Allocated() >= shape.initialized;
    return covered ? STATUS_SUCCESS : STATUS_FILE_CORRUPT_ERROR;
}

NTSTATUS NtfsFile::Load() {
    return volume_.Look([&](const NtfsOperation& operation) { return LoadShape(operation, shape_); });
}

NTSTATUS NtfsFile::Read(PFILE_OBJECT file, std::uint64_t offset, void* buffer, ULONG length, ULONG& done) {
    done = 0;
    NTSTATUS status = Reconnect();
    if (!NT_SUCCESS(status)) return status;
    const std::shared_lock shared(content_);
    status = Connected();
    if (!NT_SUCCESS(status) || length == 0) return status;
    if (offset >= shape_.size) return STATUS_END_OF_FILE;
    length = static_cast<ULONG>(std::min<std::uint64_t>(length, shape_.size - offset));
    if (shape_.resident || shape_.special) {
        status = ReadByLibrary(file, offset, buffer, length);
    } else {
        const std::uint64_t defined = offset < shape_.initialized ? shape_.initialized - offset : 0;
        const auto stored = static_cast<ULONG>(std::min<std::uint64_t>(length, defined));
        if (stored > 0) status = shape_.runs.Read(volume_.Io(), file, offset, buffer, stored);
        std::memset(static_cast<std::uint8_t*>(buffer) + stored, 0, length - stored);
    }
    if (NT_SUCCESS(status)) done = length;
    return status;
}

NTSTATUS NtfsFile::ReadByLibrary(PFILE_OBJECT file, std::uint64_t offset, void* buffer, ULONG length) {
    const VolumeLockGuard guard(volume_.Lock());
    return volume_.Look(file, [&](const NtfsOperation& operation) {
        NtfsInode inode;
        const NTSTATUS status = OpenNtfsInode(operation, reference_, inode);
        if (!NT_SUCCESS(status)) return status;
        const NtfsAttribute data = NtfsAttribute::OpenData(inode);
        if (!data) return operation.Failed(errno);
        const s64 read = ntfs_attr_pread(data.Get(), static_cast<s64>(offset), length, buffer);
        return read == length ? STATUS_SUCCESS : operation.Failed(read < 0 ? errno : EIO);
    });
}

bool NtfsFile::OverwritesInPlace(std::uint64_t offset, ULONG length) const {
    return !shape_.resident && !shape_.special && offset <= shape_.initialized &&
           length <= shape_.initialized - offset;
}

NTSTATUS NtfsFile::Write(PFILE_OBJECT file, std::uint64_t offset, const void* buffer, ULONG length,
                         ULONG& done) {
    done = 0;
    if (length == 0) return STATUS_SUCCESS;
    const std::uint32_t sector = volume_.Io().SectorSize();
    NTSTATUS status = Reconnect();
    if (!NT_SUCCESS(status)) return status;
    bool written = false;
    if (offset % sector == 0 && length % sector == 0) {
        const std::shared_lock shared(content_);
        written = NT_SUCCESS(Connected()) && OverwritesInPlace(offset, length);
        if (written) status = shape_.runs.Write(volume_.Io(), file, offset, buffer, length, shape_.initialized);
    }
    if (!written) {
        const std::unique_lock exclusive(content_);
        status = Connected();
        if (!NT_SUCCESS(status)) return status;
        if (OverwritesInPlace(offset, length))
            status = shape_.runs.Write(volume_.Io(), file, offset, buffer, length, shape_.initialized);
        else if (shape_.special)
            status = WriteByLibrary(file, offset, buffer, length);
        else
            status = Extend(file, offset, buffer, length);
    }
    if (!NT_SUCCESS(status)) return status;
    touched_.store(true, std::memory_order_relaxed);
    done = length;
    return STATUS_SUCCESS;
}

NTSTATUS NtfsFile::WriteByLibrary(PFILE_OBJECT file, std::uint64_t offset, const void* buffer, ULONG length) {
    const VolumeLockGuard guard(volume_.Lock());
    const NTSTATUS status = volume_.Change(CommitOrder::TakeFirst, file, [&](const NtfsOperation& operation) {
        NtfsInode inode;
        const NTSTATUS opened = OpenNtfsInode(operation, reference_, inode);
        if (!NT_SUCCESS(opened)) return opened;
        {
            const NtfsAttribute data = NtfsAttribute::OpenData(inode);
            if (!data || !WriteAll(data, offset, buffer, length)) return operation.Failed(errno);
        }
        return inode.Close() ? STATUS_SUCCESS : operation.Failed(errno);
    });
    if (!NT_SUCCESS(status)) return status;
    return volume_.Look([&](const NtfsOperation& operation) { return LoadShape(operation, shape_); });
}

NTSTATUS NtfsFile::Extend(PFILE_OBJECT file, std::uint64_t offset, const void* buffer, ULONG length) {
    const Growth growth{file, offset, buffer, length};
    if (offset > static_cast<std::uint64_t>(INT64_MAX) - length) return STATUS_INVALID_PARAMETER;
    const VolumeLockGuard guard(volume_.Lock());
    Shape shape;
    const NTSTATUS status =
        volume_.Change(CommitOrder::TakeFirst, volume_.AttributeListObject(),
                       [&](const NtfsOperation& operation) { return ExtendWithin(operation, growth, shape); });
    if (NT_SUCCESS(status)) shape_ = shape;
    return status;
}

// Bytes of a resident file that the write does not cover, and the gap between the initialised part and the
// write, are written first; then all of it becomes initialised at once.
NTSTATUS NtfsFile::ExtendWithin(const NtfsOperation& operation, const Growth& growth, Shape& shape) const {
    VolumeIo& io = operation.Io();
    NtfsInode inode;
    NTSTATUS status = OpenNtfsInode(operation, reference_, inode);
    if (!NT_SUCCESS(status)) return status;
    {
        const NtfsAttribute data = NtfsAttribute::OpenData(inode);
        if (!data) return operation.Failed(errno);
        const std::uint64_t end = growth.offset + growth.length;
        shape.size = std::max(end, static_cast<std::uint64_t>(data->data_size));
        shape.initialized = static_cast<std::uint64_t>(data->initialized_size);
        std::vector<std::uint8_t> old;
        if (!NAttrNonResident(data.Get())) {
            if (!MakeNonResident(data, old)) return operation.Failed(errno);
            shape.initialized = 0;
        }
        if (!Grow(data, static_cast<s64>(shape.size)) || !CopyRuns(data, shape.runs, shape.special))
            return operation.Failed(errno);
        const bool covered = growth.offset == 0 && growth.length >= old.size();
        if (!old.empty() && !covered) {
            status = shape.runs.Write(io, growth.file, 0, old.data(), old.size(), 0);
            shape.initialized = old.size();
        }
        if (NT_SUCCESS(status))
            status =
                shape.runs.WriteZeros(io, growth.file, shape.initialized, growth.offset, shape.initialized);
        shape.initialized = std::max(shape.initialized, growth.offset);
        if (NT_SUCCESS(status))
            status = shape.runs.Write(io, growth.file, growth.offset, growth.buffer, growth.length,
                                      shape.initialized);
        if (!NT_SUCCESS(status)) return status;
        shape.initialized = std::max(shape.initialized, end);
        if (!SetInitializedSize(data, shape.initialized)) return operation.Failed(errno);
    }
    // The directory's copy of the sizes follows at the last close; each block of a growing file would otherwise
    // write the index once more.
    NInoFileNameClearDirty(inode.Get());
    return inode.Close() ? STATUS_SUCCESS : operation.Failed(errno);
}

NTSTATUS NtfsFile::Truncate(ULONG attributes) {
    NTSTATUS status = Reconnect();
    if (!NT_SUCCESS(status)) return status;
    const std::unique_lock exclusive(content_);
    status = Connected();
    if (!NT_SUCCESS(status)) return status;
    const VolumeLockGuard guard(volume_.Lock());
    status = volume_.Change(CommitOrder::RemoveFirst, volume_.AttributeListObject(),
                            [&](const NtfsOperation& operation) {
                                NtfsInode inode;
                                const NTSTATUS opened = OpenNtfsInode(operation, reference_, inode);
                                if (!NT_SUCCESS(opened)) return opened;
                                {
                                    const NtfsAttribute data = NtfsAttribute::OpenData(inode);
                                    if (!data || ntfs_attr_truncate(data.Get(), 0) != 0)
                                        return operation.Failed(errno);
                                }
                                SetNtfsAttributes(inode, attributes);
                                return inode.Close() ? STATUS_SUCCESS : operation.Failed(errno);
                            });
    if (!NT_SUCCESS(status)) return status;
    touched_.store(true, std::memory_order_relaxed);
    return volume_.Look([&](const NtfsOperation& operation) { return LoadShape(operation, shape_); });
}

void NtfsFile::Disconnect() {
    const std::unique_lock exclusive(content_);
    connection_ = Connection::Gone;
}

void NtfsFile::Suspend() {
    const std::unique_lock exclusive(content_);
    touched_.store(false, std::memory_order_relaxed);  // what was due was brought up to date before
    if (connection_ != Connection::Gone) connection_ = Connection::Suspended;
}

void NtfsFile::Resume() {
    const std::unique_lock exclusive(content_);
    if (connection_ == Connection::Suspended) connection_ = Connection::Stale;
}

NTSTATUS NtfsFile::Connected() const {
    switch (connection_.load(std::memory_order_relaxed)) {
        case Connection::Connected:
            return STATUS_SUCCESS;
        case Connection::Gone:
            return STATUS_DEVICE_NOT_READY;
        default:
            return STATUS_DEVICE_BUSY;
    }
}

// A file whose record is another one's by now is gone for good; what else fails may work the next time.
NTSTATUS NtfsFile::Reconnect() {
    if (connection_.load(std::memory_order_relaxed) != Connection::Stale) return STATUS_SUCCESS;
    const std::unique_lock exclusive(content_);
    if (connection_ != Connection::Stale) return STATUS_SUCCESS;
    const VolumeLockGuard guard(volume_.Lock());
    Shape shape;
    const NTSTATUS status =
        volume_.Look([&](const NtfsOperation& operation) { return LoadShape(operation, shape); });
    if (NT_SUCCESS(status)) {
        shape_ = shape;
        connection_ = Connection::Connected;
    } else if (status == STATUS_FILE_CORRUPT_ERROR) {
        connection_ = Connection::Gone;
        return STATUS_DEVICE_NOT_READY;
    }
    return status;
}

}  // namespace machine
