#include <algorithm>
#include <cstring>
#include <vector>
#include "machine/ntfs/format.h"
#include "machine/ntfs/inode.h"

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

NTSTATUS NtfsFormat::LoadShape(const FileId& id, FileShape& shape) {
    NtfsInode inode;
    const NTSTATUS status = OpenInode(id, inode);
    if (!NT_SUCCESS(status)) return status;
    const NtfsAttribute data = NtfsAttribute::OpenData(inode);
    if (!data) return Failed(errno);
    shape.size = static_cast<std::uint64_t>(data->data_size);
    shape.initialized = static_cast<std::uint64_t>(data->initialized_size);
    shape.resident = !NAttrNonResident(data.Get());
    shape.special = IsSpecial(data, Io());
    shape.runs.Clear();
    if (shape.resident || shape.special) return STATUS_SUCCESS;
    if (!CopyRuns(data, shape.runs, shape.special)) return Failed(errno);
    const bool covered = shape.special || shape.runs.Allocated() >= shape.initialized;
    return covered ? STATUS_SUCCESS : STATUS_FILE_CORRUPT_ERROR;
}

NTSTATUS NtfsFormat::ReadByLibrary(const FileId& id, std::uint64_t offset, void* buffer, ULONG length) {
    NtfsInode inode;
    const NTSTATUS status = OpenInode(id, inode);
    if (!NT_SUCCESS(status)) return status;
    const NtfsAttribute data = NtfsAttribute::OpenData(inode);
    if (!data) return Failed(errno);
    const s64 read = ntfs_attr_pread(data.Get(), static_cast<s64>(offset), length, buffer);
    return read == length ? STATUS_SUCCESS : Failed(read < 0 ? errno : EIO);
}

NTSTATUS NtfsFormat::WriteByLibrary(const FileId& id, std::uint64_t offset, const void* buffer, ULONG length) {
    NtfsInode inode;
    const NTSTATUS status = OpenInode(id, inode);
    if (!NT_SUCCESS(status)) return status;
    {
        const NtfsAttribute data = NtfsAttribute::OpenData(inode);
        if (!data || !WriteAll(data, offset, buffer, length)) return Failed(errno);
    }
    return inode.Close() ? STATUS_SUCCESS : Failed(errno);
}

// Bytes of a resident file that the write does not cover, and the gap between the initialised part and the
// write, are written first; then all of it becomes initialised at once.
NTSTATUS NtfsFormat::Extend(const FileId& id, const FileWrite& write, FileShape& shape) {
    if (write.offset > static_cast<std::uint64_t>(INT64_MAX) - write.length) return STATUS_INVALID_PARAMETER;
    NtfsInode inode;
    NTSTATUS status = OpenInode(id, inode);
    if (!NT_SUCCESS(status)) return status;
    {
        const NtfsAttribute data = NtfsAttribute::OpenData(inode);
        if (!data) return Failed(errno);
        shape = {};
        shape.size = std::max(write.End(), static_cast<std::uint64_t>(data->data_size));
        shape.initialized = static_cast<std::uint64_t>(data->initialized_size);
        std::vector<std::uint8_t> old;
        if (!NAttrNonResident(data.Get())) {
            if (!MakeNonResident(data, old)) return Failed(errno);
            shape.initialized = 0;
        }
        if (!Grow(data, static_cast<s64>(shape.size)) || !CopyRuns(data, shape.runs, shape.special))
            return Failed(errno);
        const bool covered = write.offset == 0 && write.length >= old.size();
        if (!old.empty() && !covered) {
            status = shape.runs.Write(Io(), write.file, 0, old.data(), old.size(), 0);
            shape.initialized = old.size();
        }
        if (NT_SUCCESS(status)) status = shape.Fill(Io(), write);
        if (!NT_SUCCESS(status)) return status;
        if (!SetInitializedSize(data, shape.initialized)) return Failed(errno);
    }
    // The directory's copy of the sizes follows at the last close; each block of a growing file would otherwise
    // write the index once more.
    NInoFileNameClearDirty(inode.Get());
    return inode.Close() ? STATUS_SUCCESS : Failed(errno);
}

NTSTATUS NtfsFormat::Empty(const FileId& id, ULONG attributes) {
    NtfsInode inode;
    const NTSTATUS status = OpenInode(id, inode);
    if (!NT_SUCCESS(status)) return status;
    {
        const NtfsAttribute data = NtfsAttribute::OpenData(inode);
        if (!data || ntfs_attr_truncate(data.Get(), 0) != 0) return Failed(errno);
    }
    inode.SetAttributes(attributes);
    return inode.Close() ? STATUS_SUCCESS : Failed(errno);
}

}  // namespace machine
