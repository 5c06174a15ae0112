#include "machine/ext/volume.h"
#include <cstring>
#include <vector>
#include "machine/ext/features.h"
#include "machine/ext/library.h"

namespace machine {
namespace {

constexpr int kOpenFlags = EXT2_FLAG_64BITS | EXT2_FLAG_SKIP_MMP;

NTSTATUS Translate(long error) {
    switch (error) {
        case EXT2_ET_FILE_NOT_FOUND:
            return STATUS_OBJECT_NAME_NOT_FOUND;
        case EXT2_ET_FILE_EXISTS:
        case EXT2_ET_DIR_EXISTS:
            return STATUS_OBJECT_NAME_COLLISION;
        case EXT2_ET_BLOCK_ALLOC_FAIL:
        case EXT2_ET_INODE_ALLOC_FAIL:
        case EXT2_ET_FILE_TOO_BIG:
        case EOVERFLOW:
            return STATUS_DISK_FULL;
        case EXT2_ET_NO_DIRECTORY:
            return STATUS_NOT_A_DIRECTORY;
        case EXT2_ET_NO_MEMORY:
            return STATUS_INSUFFICIENT_RESOURCES;
        case EXT2_ET_OP_NOT_SUPPORTED:
            return STATUS_NOT_SUPPORTED;
        default:
            return STATUS_FILE_CORRUPT_ERROR;
    }
}

NTSTATUS TranslateOpen(long error) {
    switch (error) {
        case EXT2_ET_BAD_MAGIC:
            return STATUS_UNRECOGNIZED_VOLUME;
        case EXT2_ET_UNSUPP_FEATURE:
            return STATUS_NOT_SUPPORTED;
        case EXT2_ET_NO_MEMORY:
            return STATUS_INSUFFICIENT_RESOURCES;
        default:
            return STATUS_DISK_CORRUPT_ERROR;
    }
}

// The groups' descriptors as they are in memory.
std::vector<char> Descriptors(ext2_filsys library) {
    const auto* first = reinterpret_cast<const char*>(library->group_desc);
    return {first, first + std::size_t{library->desc_blocks} * library->blocksize};
}

// What is beyond the end of a short last group is marked in memory as it was on the volume.
long StoreBlockBitmap(ext2_filsys library, dgrp_t group) {
    const unsigned count = EXT2_BLOCKS_PER_GROUP(library->super);
    const blk64_t first = library->super->s_first_data_block + blk64_t{group} * count;
    std::vector<char> bits(library->blocksize, static_cast<char>(0xFF));
    const long error = ext2fs_get_block_bitmap_range2(library->block_map, first, count, bits.data());
    if (error != 0) return error;
    ext2fs_block_bitmap_csum_set(library, group, bits.data(), static_cast<int>(count / 8));
    ext2fs_group_desc_csum_set(library, group);
    return io_channel_write_blk64(library->io, ext2fs_block_bitmap_loc(library, group), 1, bits.data());
}

long StoreInodeBitmap(ext2_filsys library, dgrp_t group) {
    const unsigned count = EXT2_INODES_PER_GROUP(library->super);
    std::vector<char> bits(library->blocksize, static_cast<char>(0xFF));
    const long error =
        ext2fs_get_inode_bitmap_range2(library->inode_map, 1 + ext2_ino_t{group} * count, count, bits.data());
    if (error != 0) return error;
    ext2fs_inode_bitmap_csum_set(library, group, bits.data(), static_cast<int>(count / 8));
    ext2fs_group_desc_csum_set(library, group);
    return io_channel_write_blk64(library->io, ext2fs_inode_bitmap_loc(library, group), 1, bits.data());
}

// The library would store the bitmaps of all groups. An operation takes blocks and inodes or gives them back,
// never both, so that a group whose descriptor counts as before has its bitmaps as before. A group that nothing
// was ever taken from has none on the volume.
long StoreTables(ext2_filsys library, const std::vector<char>& before) {
    const std::size_t size = EXT2_DESC_SIZE(library->super);
    for (dgrp_t group = 0; group < library->group_desc_count; ++group) {
        const void* now = ext2fs_group_desc(library, library->group_desc, group);
        if (std::memcmp(now, &before[group * size], size) == 0) continue;
        const bool noBlocks = ext2fs_bg_flags_test(library, group, EXT2_BG_BLOCK_UNINIT) != 0;
        const bool noInodes = ext2fs_bg_flags_test(library, group, EXT2_BG_INODE_UNINIT) != 0;
        long error = noBlocks ? 0 : StoreBlockBitmap(library, group);
        if (error == 0 && !noInodes) error = StoreInodeBitmap(library, group);
        if (error != 0) return error;
    }
    library->flags &= ~(EXT2_FLAG_BB_DIRTY | EXT2_FLAG_IB_DIRTY);
    return ext2fs_flush2(library, EXT2_FLAG_FLUSH_NO_SYNC);
}

int NoteBlock(ext2_filsys, blk64_t* block, e2_blkcnt_t, blk64_t, int, void* names) {
    static_cast<ExtNames*>(names)->AddDirectoryBlock(*block);
    return 0;
}

}  // namespace

NTSTATUS ExtOperation::Failed(long error) const {
    const NTSTATUS status = cache_.Failure();
    return NT_SUCCESS(status) ? Translate(error) : status;
}

long ExtOperation::DirectoryChanged(std::uint32_t inode) const {
    const long error = ext2fs_block_iterate3(&library_, inode, BLOCK_FLAG_READ_ONLY | BLOCK_FLAG_DATA_ONLY,
                                             nullptr, NoteBlock, &names_);
    return error == EXT2_ET_INLINE_DATA_CANT_ITERATE ? 0 : error;
}

ExtVolume::ExtVolume(VolumeIo& io) : io_(io), names_(io), cache_(io, names_), device_(io, cache_) {}

ExtVolume::~ExtVolume() {
    const VolumeLockGuard guard(lock_);
    Close();
}

// Opened for writing where the library can write; whether anything may be written is our own decision.
long ExtVolume::Open() {
    readOnly_.clear();
    long error = device_.Open(kOpenFlags | EXT2_FLAG_RW, library_);
    if (error == EXT2_ET_RO_UNSUPP_FEATURE) {
        readOnly_ = "it uses features that are not known here";
        error = device_.Open(kOpenFlags, library_);
    }
    if (error != 0) return error;
    library_->flags |= EXT2_FLAG_MASTER_SB_ONLY;  // the copies are e2fsck's
    library_->umask = 022;
    if (readOnly_.empty()) readOnly_ = WhyReadOnly(library_);
    return 0;
}

NTSTATUS ExtVolume::Mount() {
    cache_.Discard();
    const bool first = closed_;
    const std::string before = readOnly_;
    const long error = Open();
    if (error != 0) {
        const NTSTATUS failure = cache_.Failure();
        cache_.Discard();
        const NTSTATUS status = NT_SUCCESS(failure) ? TranslateOpen(error) : failure;
        if (status != STATUS_UNRECOGNIZED_VOLUME)
            DbgPrint("ext file system not mounted: status 0x%08x\n", status);
        return status;
    }
    const std::string reason = WhyNotUsable(library_, io_);
    if (!reason.empty()) {
        DbgPrint("ext file system not mounted: %s\n", reason.c_str());
        Forget();
        return STATUS_NOT_SUPPORTED;
    }
    if (!readOnly_.empty() && (first || readOnly_ != before))
        DbgPrint("ext file system is read-only: %s\n", readOnly_.c_str());
    names_.SetLibrary(library_);
    closed_ = false;
    return STATUS_SUCCESS;
}

void ExtVolume::Close() {
    Forget();
    closed_ = true;
}

void ExtVolume::Suspend() {
    Forget();
    suspended_ = true;
}

NTSTATUS ExtVolume::Begin() {
    if (closed_) return STATUS_DEVICE_NOT_READY;
    if (suspended_) return STATUS_DEVICE_BUSY;
    cache_.Discard();
    return library_ == nullptr ? Mount() : STATUS_SUCCESS;
}

NTSTATUS ExtVolume::BeginChange() {
    const NTSTATUS status = Begin();
    if (!NT_SUCCESS(status)) return status;
    if (!readOnly_.empty()) return STATUS_MEDIA_WRITE_PROTECTED;
    const long error = library_->block_map == nullptr ? ext2fs_read_bitmaps(library_) : 0;
    before_ = Descriptors(library_);
    if (error == 0) return STATUS_SUCCESS;
    const NTSTATUS failure = cache_.Failure();
    Forget();
    return NT_SUCCESS(failure) ? STATUS_DISK_CORRUPT_ERROR : failure;
}

void ExtVolume::EndOperation() {
    names_.SetOther(nullptr);
    names_.ForgetDirectories();
    cache_.Discard();
}

NTSTATUS ExtVolume::Commit(const ExtOperation& operation, CommitOrder order) {
    const long error = StoreTables(library_, before_);
    return error == 0 ? WriteThroughUnclean(order) : operation.Failed(error);
}

// The cache writes the superblock before everything else: first the one that calls the volume unclean, with the
// rest behind it, then the final one.
NTSTATUS ExtVolume::WriteThroughUnclean(CommitOrder order) {
    ext2_super_block final, unclean;
    static_assert(sizeof final == SUPERBLOCK_SIZE);
    NTSTATUS status = cache_.Read(SUPERBLOCK_OFFSET, &final, sizeof final);
    if (!NT_SUCCESS(status)) return status;
    std::memcpy(&unclean, &final, sizeof final);
    unclean.s_state = static_cast<__u16>(unclean.s_state & ~EXT2_VALID_FS);
    if (ext2fs_superblock_csum_set(library_, &unclean) != 0) return STATUS_DISK_CORRUPT_ERROR;
    status = cache_.Write(SUPERBLOCK_OFFSET, &unclean, sizeof unclean);
    if (NT_SUCCESS(status)) status = cache_.Commit(order);
    if (NT_SUCCESS(status)) status = cache_.Write(SUPERBLOCK_OFFSET, &final, sizeof final);
    return NT_SUCCESS(status) ? cache_.Commit(order) : status;
}

void ExtVolume::Forget() {
    names_.SetLibrary(nullptr);
    if (library_ != nullptr) ext2fs_free(library_);  // stores nothing
    library_ = nullptr;
    cache_.Discard();
}

}  // namespace machine
