#include <algorithm>
#include "machine/ext/format.h"
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
NTSTATUS FindUninitialized(ExtFormat& format, ExtInode& inode, bool& found) {
    found = false;
    if ((inode->i_flags & EXT4_EXTENTS_FL) == 0) return STATUS_SUCCESS;
    ext2_extent_handle_t handle = nullptr;
    long error = ext2fs_extent_open2(format.Library(), inode.Number(), inode.Get(), &handle);
    if (error != 0) return format.Failed(error);
    ext2fs_extent extent{};
    error = ext2fs_extent_get(handle, EXT2_EXTENT_ROOT, &extent);
    while (error == 0 && !found) {
        const bool leaf = (extent.e_flags & EXT2_EXTENT_FLAGS_LEAF) != 0;
        found = leaf && (extent.e_flags & EXT2_EXTENT_FLAGS_UNINIT) != 0;
        error = ext2fs_extent_get(handle, EXT2_EXTENT_NEXT, &extent);
    }
    ext2fs_extent_free(handle);
    const bool atEnd = error == 0 || error == EXT2_ET_EXTENT_NO_NEXT || error == EXT2_ET_NO_CURRENT_NODE;
    return atEnd ? STATUS_SUCCESS : format.Failed(error);
}

NTSTATUS CopyRuns(ExtFormat& format, ExtInode& inode, FileRuns& runs, bool& special) {
    ext2_filsys library = format.Library();
    runs.Clear();
    NTSTATUS status = FindUninitialized(format, inode, special);
    if (!NT_SUCCESS(status) || special || ext2fs_inode_has_valid_blocks2(library, inode.Get()) == 0)
        return status;
    BlockWalk walk{&runs, library->blocksize, ext2fs_blocks_count(library->super)};
    const long error = ext2fs_block_iterate3(
        library, inode.Number(), BLOCK_FLAG_READ_ONLY | BLOCK_FLAG_DATA_ONLY, nullptr, NoteBlock, &walk);
    if (error != 0) return format.Failed(error);
    special = walk.hole;
    return walk.corrupt ? STATUS_FILE_CORRUPT_ERROR : STATUS_SUCCESS;
}

// Blocks of a file that follow each other on the volume; block 0 stands for a hole.
struct BlockRun {
    blk64_t block;
    std::uint64_t count;
};

// From block `at` of the file on, before `end`. The library's search for a block begins at the file's first
// one, so it is made once for an extent.
long FindRun(ext2_filsys library, ExtInode& inode, std::uint64_t at, std::uint64_t end, BlockRun& run) {
    run = {0, 1};
    if ((inode->i_flags & EXT4_EXTENTS_FL) == 0)
        return ext2fs_bmap2(library, inode.Number(), inode.Get(), nullptr, 0, at, nullptr, &run.block);
    ext2_extent_handle_t handle = nullptr;
    long error = ext2fs_extent_open2(library, inode.Number(), inode.Get(), &handle);
    if (error != 0) return error;
    ext2fs_extent extent{};
    error = ext2fs_extent_goto(handle, at);
    if (error == 0) error = ext2fs_extent_get(handle, EXT2_EXTENT_CURRENT, &extent);
    ext2fs_extent_free(handle);
    if (error != 0) return error;
    const std::uint64_t within = at - extent.e_lblk;
    run = {extent.e_pblk + within, std::min(end - at, extent.e_len - within)};
    return 0;
}

// Takes blocks so that the runs cover `size` bytes.
NTSTATUS TakeBlocks(ExtFormat& format, ExtInode& inode, std::uint64_t size, FileRuns& runs) {
    ext2_filsys library = format.Library();
    const std::uint64_t blockSize = library->blocksize;
    const std::uint64_t first = runs.Allocated() / blockSize, end = (size + blockSize - 1) / blockSize;
    if (first >= end) return STATUS_SUCCESS;
    if (end - first > ext2fs_free_blocks_count(library->super)) return STATUS_DISK_FULL;
    long error = ext2fs_fallocate(library, EXT2_FALLOCATE_FORCE_INIT, inode.Number(), inode.Get(), ~0ULL, first,
                                  end - first);
    BlockRun run{};
    for (std::uint64_t at = first; error == 0 && at < end; at += run.count) {
        error = FindRun(library, inode, at, end, run);
        if (error == 0 && run.block == 0) return STATUS_FILE_CORRUPT_ERROR;
        if (error == 0) runs.Append(run.block * blockSize, run.count * blockSize);
    }
    return error == 0 ? STATUS_SUCCESS : format.Failed(error);
}

}  // namespace

NTSTATUS ExtFormat::LoadShape(const FileId& id, FileShape& shape) {
    ExtInode inode(id);
    const NTSTATUS status = inode.Load(*this);
    if (!NT_SUCCESS(status)) return status;
    if (inode->i_generation != id.generation || !inode.IsPlainFile()) return STATUS_FILE_CORRUPT_ERROR;
    shape.size = shape.initialized = inode.Size();
    const NTSTATUS copied = CopyRuns(*this, inode, shape.runs, shape.special);
    if (NT_SUCCESS(copied) && shape.runs.Allocated() < shape.size) shape.special = true;  // ends in a hole
    return copied;
}

NTSTATUS ExtFormat::ReadByLibrary(const FileId& id, std::uint64_t offset, void* buffer, ULONG length) {
    ext2_file_t opened = nullptr;
    long error = ext2fs_file_open(library_, static_cast<ext2_ino_t>(id.number), 0, &opened);
    if (error != 0) return Failed(error);
    unsigned read = 0;
    error = ext2fs_file_llseek(opened, offset, EXT2_SEEK_SET, nullptr);
    if (error == 0) error = ext2fs_file_read(opened, buffer, length, &read);
    KVR_DISCARD(ext2fs_file_close(opened), "nothing was written");
    if (error != 0) return Failed(error);
    return read == length ? STATUS_SUCCESS : STATUS_FILE_CORRUPT_ERROR;
}

// The write's last block is filled up with zeros.
NTSTATUS ExtFormat::Extend(const FileId& id, const FileWrite& write, FileShape& shape) {
    ExtInode inode(id);
    NTSTATUS status = inode.Load(*this);
    if (NT_SUCCESS(status)) status = TakeBlocks(*this, inode, write.End(), shape.runs);
    if (NT_SUCCESS(status)) status = shape.Fill(Io(), write);
    if (NT_SUCCESS(status))
        status = shape.runs.WriteZeros(Io(), write.file, write.End(), shape.runs.Allocated(), write.End());
    if (!NT_SUCCESS(status)) return status;
    shape.size = write.End();
    const long error = ext2fs_inode_size_set(library_, inode.Get(), static_cast<ext2_off64_t>(shape.size));
    if (error != 0) return Failed(error);
    inode.Touch();
    return inode.Store(*this);
}

NTSTATUS ExtFormat::Empty(const FileId& id, ULONG attributes) {
    ExtInode inode(id);
    NTSTATUS status = inode.Load(*this);
    if (NT_SUCCESS(status)) status = inode.Empty(*this);
    if (!NT_SUCCESS(status)) return status;
    if ((attributes & FILE_ATTRIBUTE_SYSTEM) != 0) inode.SetAttributes(attributes);
    inode.Touch();
    return inode.Store(*this);
}

NTSTATUS ExtFormat::EmptyForRemoval(const FileId& id) {
    ExtInode inode(id);
    NTSTATUS status = inode.Load(*this);
    if (!NT_SUCCESS(status) || inode->i_links_count > 1) return status;
    status = inode.Empty(*this);
    return NT_SUCCESS(status) ? inode.Store(*this) : status;
}

}  // namespace machine
