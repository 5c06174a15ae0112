#include "machine/ext/file.h"
#include <algorithm>
#include <mutex>
#include "machine/ext/inode.h"
#include "platform/owners.h"

namespace machine {
namespace {

// Gathers the blocks of a file as the library walks through them.
struct BlockWalk {
    FileRuns* runs;
    std::uint64_t blockSize;
    std::uint64_t blocks;  // on the volume
    bool hole = false;
    bool corrupt = false;
};

int NoteBlock(ext2_filsys, blk64_t* block, e2_blkcnt_t at, blk64_t, int, void* context) {
    auto& walk = *static_cast<BlockWalk*>(context);
    walk.corrupt = walk.corrupt || *block == 0 || *block >= walk.blocks;
    walk.hole = walk.hole || static_cast<std::uint64_t>(at) * walk.blockSize != walk.runs->Allocated();
    if (walk.corrupt || walk.hole) return BLOCK_ABORT;
    walk.runs->Append(*block * walk.blockSize, walk.blockSize);
    return 0;
}

// Extents that are reserved but hold no data.
NTSTATUS FindUninitialized(const ExtOperation& operation, ExtInode& inode, bool& found) {
    found = false;
    if ((inode->i_flags & EXT4_EXTENTS_FL) == 0) return STATUS_SUCCESS;
    ext2_extent_handle_t handle = nullptr;
    long error = ext2fs_extent_open2(operation.Library(), inode.Number(), inode.Get(), &handle);
    if (error != 0) return operation.Failed(error);
    ext2fs_extent extent{};
    error = ext2fs_extent_get(handle, EXT2_EXTENT_ROOT, &extent);
    while (error == 0 && !found) {
        const bool leaf = (extent.e_flags & EXT2_EXTENT_FLAGS_LEAF) != 0;
        found = leaf && (extent.e_flags & EXT2_EXTENT_FLAGS_UNINIT) != 0;
        error = ext2fs_extent_get(handle, EXT2_EXTENT_NEXT, &extent);
    }
    ext2fs_extent_free(handle);
    const bool atEnd = error == 0 || error == EXT2_ET_EXTENT_NO_NEXT || error == EXT2_ET_NO_CURRENT_NODE;
    return atEnd ? STATUS_SUCCESS : operation.Failed(error);
}

NTSTATUS CopyRuns(const ExtOperation& operation, ExtInode& inode, FileRuns& runs, bool& special) {
    ext2_filsys library = operation.Library();
    runs.Clear();
    NTSTATUS status = FindUninitialized(operation, inode, special);
    if (!NT_SUCCESS(status) || special || ext2fs_inode_has_valid_blocks2(library, inode.Get()) == 0)
        return status;
    BlockWalk walk{&runs, library->blocksize, ext2fs_blocks_count(library->super)};
    const long error = ext2fs_block_iterate3(
        library, inode.Number(), BLOCK_FLAG_READ_ONLY | BLOCK_FLAG_DATA_ONLY, nullptr, NoteBlock, &walk);
    if (error != 0) return operation.Failed(error);
    special = walk.hole;
    return walk.corrupt ? STATUS_FILE_CORRUPT_ERROR : STATUS_SUCCESS;
}

// Takes blocks so that the runs cover `size` bytes.
NTSTATUS TakeBlocks(const ExtOperation& operation, ExtInode& inode, std::uint64_t size, FileRuns& runs) {
    ext2_filsys library = operation.Library();
    const std::uint64_t blockSize = library->blocksize;
    const std::uint64_t first = runs.Allocated() / blockSize, end = (size + blockSize - 1) / blockSize;
    if (first >= end) return STATUS_SUCCESS;
    if (end - first > ext2fs_free_blocks_count(library->super)) return STATUS_DISK_FULL;
    long error = ext2fs_fallocate(library, EXT2_FALLOCATE_FORCE_INIT, inode.Number(), inode.Get(), ~0ULL, first,
                                  end - first);
    for (std::uint64_t at = first; error == 0 && at < end; ++at) {
        blk64_t block = 0;
        error = ext2fs_bmap2(library, inode.Number(), inode.Get(), nullptr, 0, at, nullptr, &block);
        if (error == 0 && block == 0) return STATUS_FILE_CORRUPT_ERROR;
        if (error == 0) runs.Append(block * blockSize, blockSize);
    }
    return error == 0 ? STATUS_SUCCESS : operation.Failed(error);
}

}  // namespace

// One write that reaches past the end.
struct ExtFile::Growth {
    PFILE_OBJECT file;
    std::uint64_t offset;
    const void* buffer;
    ULONG length;
    std::uint64_t End() const { return offset + length; }
};

NTSTATUS ExtFile::LoadShape(const ExtOperation& operation, Shape& shape) const {
    ExtInode inode(reference_.inode);
    const NTSTATUS status = inode.Load(operation);
    if (!NT_SUCCESS(status)) return status;
    if (inode->i_generation != reference_.generation || !inode.IsPlainFile()) return STATUS_FILE_CORRUPT_ERROR;
    shape.size = inode.Size();
    const NTSTATUS copied = CopyRuns(operation, inode, shape.runs, shape.special);
    if (NT_SUCCESS(copied) && shape.runs.Allocated() < shape.size) shape.special = true;  // ends in a hole
    return copied;
}

NTSTATUS ExtFile::Load() {
    return volume_.Look([&](const ExtOperation& operation) { return LoadShape(operation, shape_); });
}

NTSTATUS ExtFile::Read(PFILE_OBJECT file, std::uint64_t offset, void* buffer, ULONG length, ULONG& done) {
    done = 0;
    NTSTATUS status = Reconnect();
    if (!NT_SUCCESS(status)) return status;
    const std::shared_lock shared(content_);
    status = Connected();
    if (!NT_SUCCESS(status) || length == 0) return status;
    if (offset >= shape_.size) return STATUS_END_OF_FILE;
    length = static_cast<ULONG>(std::min<std::uint64_t>(length, shape_.size - offset));
    status = shape_.special ? ReadByLibrary(file, offset, buffer, length)
                            : shape_.runs.Read(volume_.Io(), file, offset, buffer, length);
    if (NT_SUCCESS(status)) done = length;
    return status;
}

NTSTATUS ExtFile::ReadByLibrary(PFILE_OBJECT file, std::uint64_t offset, void* buffer, ULONG length) {
    const VolumeLockGuard guard(volume_.Lock());
    return volume_.Look(file, [&](const ExtOperation& operation) {
        ext2_file_t opened = nullptr;
        long error = ext2fs_file_open(operation.Library(), reference_.inode, 0, &opened);
        if (error != 0) return operation.Failed(error);
        unsigned read = 0;
        error = ext2fs_file_llseek(opened, offset, EXT2_SEEK_SET, nullptr);
        if (error == 0) error = ext2fs_file_read(opened, buffer, length, &read);
        KVR_DISCARD(ext2fs_file_close(opened), "nothing was written");
        if (error != 0) return operation.Failed(error);
        return read == length ? STATUS_SUCCESS : STATUS_FILE_CORRUPT_ERROR;
    });
}

bool ExtFile::OverwritesInPlace(std::uint64_t offset, ULONG length) const {
    return !shape_.special && offset <= shape_.size && length <= shape_.size - offset;
}

NTSTATUS ExtFile::Write(PFILE_OBJECT file, std::uint64_t offset, const void* buffer, ULONG length,
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
        if (written) status = shape_.runs.Write(volume_.Io(), file, offset, buffer, length, shape_.size);
    }
    if (!written) {
        const std::unique_lock exclusive(content_);
        status = Connected();
        if (!NT_SUCCESS(status)) return status;
        if (shape_.special) return STATUS_NOT_SUPPORTED;
        if (OverwritesInPlace(offset, length))
            status = shape_.runs.Write(volume_.Io(), file, offset, buffer, length, shape_.size);
        else
            status = Extend({file, offset, buffer, length});
    }
    if (NT_SUCCESS(status)) done = length;
    return status;
}

NTSTATUS ExtFile::Extend(const Growth& growth) {
    Shape shape = shape_;
    const VolumeLockGuard guard(volume_.Lock());
    const NTSTATUS status = volume_.Change(CommitOrder::TakeFirst, [&](const ExtOperation& operation) {
        return ExtendWithin(operation, growth, shape);
    });
    if (NT_SUCCESS(status)) shape_ = std::move(shape);
    return status;
}

NTSTATUS ExtFile::ExtendWithin(const ExtOperation& operation, const Growth& growth, Shape& shape) const {
    ExtInode inode(reference_.inode);
    NTSTATUS status = inode.Load(operation);
    if (NT_SUCCESS(status)) status = TakeBlocks(operation, inode, growth.End(), shape.runs);
    if (NT_SUCCESS(status)) status = Fill(operation, growth, shape);
    if (!NT_SUCCESS(status)) return status;
    shape.size = growth.End();
    const long error =
        ext2fs_inode_size_set(operation.Library(), inode.Get(), static_cast<ext2_off64_t>(shape.size));
    if (error != 0) return operation.Failed(error);
    inode.Touch();
    return inode.Store(operation);
}

// Zeros between the old end and the write and from there to the end of the last block, and the data.
NTSTATUS ExtFile::Fill(const ExtOperation& operation, const Growth& growth, Shape& shape) const {
    VolumeIo& io = operation.Io();
    NTSTATUS status = shape.runs.WriteZeros(io, growth.file, shape.size, growth.offset, shape.size);
    const std::uint64_t valid = std::max(shape.size, growth.offset);
    if (NT_SUCCESS(status))
        status = shape.runs.Write(io, growth.file, growth.offset, growth.buffer, growth.length, valid);
    if (!NT_SUCCESS(status)) return status;
    return shape.runs.WriteZeros(io, growth.file, growth.End(), shape.runs.Allocated(), growth.End());
}

NTSTATUS ExtFile::Truncate(ULONG attributes) {
    NTSTATUS status = Reconnect();
    if (!NT_SUCCESS(status)) return status;
    const std::unique_lock exclusive(content_);
    status = Connected();
    if (!NT_SUCCESS(status)) return status;
    const VolumeLockGuard guard(volume_.Lock());
    status = volume_.Change(CommitOrder::RemoveFirst, [&](const ExtOperation& operation) {
        ExtInode inode(reference_.inode);
        NTSTATUS emptied = inode.Load(operation);
        if (NT_SUCCESS(emptied)) emptied = inode.Empty(operation);
        if (!NT_SUCCESS(emptied)) return emptied;
        if ((attributes & FILE_ATTRIBUTE_SYSTEM) != 0) inode.SetAttributes(attributes);
        inode.Touch();
        return inode.Store(operation);
    });
    if (NT_SUCCESS(status)) shape_ = {};
    return status;
}

void ExtFile::Disconnect() {
    const std::unique_lock exclusive(content_);
    connection_ = Connection::Gone;
}

void ExtFile::Suspend() {
    const std::unique_lock exclusive(content_);
    if (connection_ != Connection::Gone) connection_ = Connection::Suspended;
}

void ExtFile::Resume() {
    const std::unique_lock exclusive(content_);
    if (connection_ == Connection::Suspended) connection_ = Connection::Stale;
}

NTSTATUS ExtFile::Connected() const {
    switch (connection_.load(std::memory_order_relaxed)) {
        case Connection::Connected:
            return STATUS_SUCCESS;
        case Connection::Gone:
            return STATUS_DEVICE_NOT_READY;
        default:
            return STATUS_DEVICE_BUSY;
    }
}

// A file whose inode is free or another one's by now is gone for good; what else fails may work the next time.
NTSTATUS ExtFile::Reconnect() {
    if (connection_.load(std::memory_order_relaxed) != Connection::Stale) return STATUS_SUCCESS;
    const std::unique_lock exclusive(content_);
    if (connection_ != Connection::Stale) return STATUS_SUCCESS;
    const VolumeLockGuard guard(volume_.Lock());
    Shape shape;
    const NTSTATUS status =
        volume_.Look([&](const ExtOperation& operation) { return LoadShape(operation, shape); });
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
