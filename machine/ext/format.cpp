#include "machine/ext/format.h"
#include <algorithm>
#include <cstddef>
#include <cstring>
#include "machine/ext/device.h"
#include "machine/ext/features.h"
#include "machine/ext/library.h"
#include "machine/files/mounted_file_system.h"

namespace machine {
namespace {

constexpr FormatTraits kTraits = {.kind = FileSystemKind::Ext,
                                  .driverName = u"\\FileSystem\\Ext4",
                                  .movesNames = false,
                                  .writesSpecial = false,
                                  .showsSizesInFolder = false,
                                  .emptiesFirst = true};
constexpr int kOpenFlags = EXT2_FLAG_64BITS | EXT2_FLAG_SKIP_MMP;

constexpr LibraryError kErrors[] = {{EXT2_ET_FILE_NOT_FOUND, STATUS_OBJECT_NAME_NOT_FOUND},
                                    {EXT2_ET_FILE_EXISTS, STATUS_OBJECT_NAME_COLLISION},
                                    {EXT2_ET_DIR_EXISTS, STATUS_OBJECT_NAME_COLLISION},
                                    {EXT2_ET_BLOCK_ALLOC_FAIL, STATUS_DISK_FULL},
                                    {EXT2_ET_INODE_ALLOC_FAIL, STATUS_DISK_FULL},
                                    {EXT2_ET_FILE_TOO_BIG, STATUS_DISK_FULL},
                                    {EOVERFLOW, STATUS_DISK_FULL},
                                    {EXT2_ET_NO_DIRECTORY, STATUS_NOT_A_DIRECTORY},
                                    {EXT2_ET_NO_MEMORY, STATUS_INSUFFICIENT_RESOURCES},
                                    {EXT2_ET_OP_NOT_SUPPORTED, STATUS_NOT_SUPPORTED}};
constexpr LibraryError kOpenErrors[] = {{EXT2_ET_BAD_MAGIC, STATUS_UNRECOGNIZED_VOLUME},
                                        {EXT2_ET_UNSUPP_FEATURE, STATUS_NOT_SUPPORTED},
                                        {EXT2_ET_NO_MEMORY, STATUS_INSUFFICIENT_RESOURCES}};

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

ExtFormat::ExtFormat(VolumeIo& io) : VolumeFormat(kTraits, io, names_), names_(io) {}

NTSTATUS ExtFormat::Failed(long error) const {
    return Failure(kErrors, error, STATUS_FILE_CORRUPT_ERROR);
}

long ExtFormat::DirectoryChanged(std::uint32_t inode) {
    const long error = ext2fs_block_iterate3(library_, inode, BLOCK_FLAG_READ_ONLY | BLOCK_FLAG_DATA_ONLY,
                                             nullptr, NoteBlock, &names_);
    return error == EXT2_ET_INLINE_DATA_CANT_ITERATE ? 0 : error;
}

// Opened for writing where the library can write; whether anything may be written is our own decision.
long ExtFormat::OpenLibrary() {
    readOnly_.clear();
    long error = OpenExtLibrary(Cache(), kOpenFlags | EXT2_FLAG_RW, library_);
    if (error == EXT2_ET_RO_UNSUPP_FEATURE) {
        readOnly_ = "it uses features that are not known here";
        error = OpenExtLibrary(Cache(), kOpenFlags, library_);
    }
    if (error != 0) return error;
    library_->flags |= EXT2_FLAG_MASTER_SB_ONLY;  // the copies are e2fsck's
    library_->umask = 022;
    if (readOnly_.empty()) readOnly_ = WhyReadOnly(library_);
    return 0;
}

NTSTATUS ExtFormat::Open() {
    const std::string before = readOnly_;
    const long error = OpenLibrary();
    if (error != 0) {
        const NTSTATUS status = Failure(kOpenErrors, error, STATUS_DISK_CORRUPT_ERROR);
        if (status != STATUS_UNRECOGNIZED_VOLUME)
            DbgPrint("ext file system not mounted: status 0x%08x\n", status);
        return status;
    }
    const std::string reason = WhyNotUsable(library_, Io());
    if (!reason.empty()) {
        DbgPrint("ext file system not mounted: %s\n", reason.c_str());
        return STATUS_NOT_SUPPORTED;
    }
    if (!readOnly_.empty() && readOnly_ != before)
        DbgPrint("ext file system is read-only: %s\n", readOnly_.c_str());
    names_.SetLibrary(library_);
    return STATUS_SUCCESS;
}

void ExtFormat::Drop() {
    names_.SetLibrary(nullptr);
    if (library_ != nullptr) ext2fs_free(library_);  // stores nothing
    library_ = nullptr;
}

NTSTATUS ExtFormat::BeginChange() {
    const long error = library_->block_map == nullptr ? ext2fs_read_bitmaps(library_) : 0;
    before_ = Descriptors(library_);
    return error == 0 ? STATUS_SUCCESS : Failure({}, error, STATUS_DISK_CORRUPT_ERROR);
}

NTSTATUS ExtFormat::Commit(CommitOrder order) {
    const long error = StoreTables(library_, before_);
    return error == 0 ? WriteThroughUnclean(order) : Failed(error);
}

// The cache writes the superblock before everything else: first the one that calls the volume unclean, with the
// rest behind it, then the final one.
NTSTATUS ExtFormat::WriteThroughUnclean(CommitOrder order) {
    ext2_super_block final, unclean;
    static_assert(sizeof final == SUPERBLOCK_SIZE);
    NTSTATUS status = Cache().Read(SUPERBLOCK_OFFSET, &final, sizeof final);
    if (!NT_SUCCESS(status)) return status;
    std::memcpy(&unclean, &final, sizeof final);
    unclean.s_state = static_cast<__u16>(unclean.s_state & ~EXT2_VALID_FS);
    if (ext2fs_superblock_csum_set(library_, &unclean) != 0) return STATUS_DISK_CORRUPT_ERROR;
    status = Cache().Write(SUPERBLOCK_OFFSET, &unclean, sizeof unclean);
    if (NT_SUCCESS(status)) status = Cache().Commit(order);
    if (NT_SUCCESS(status)) status = Cache().Write(SUPERBLOCK_OFFSET, &final, sizeof final);
    return NT_SUCCESS(status) ? Cache().Commit(order) : status;
}

NTSTATUS ExtFormat::FreeSpace(std::uint64_t& bytes) {
    bytes = ext2fs_free_blocks_count(library_->super) * library_->blocksize;
    return STATUS_SUCCESS;
}

std::string ExtFormat::Label() const {
    const auto* name = reinterpret_cast<const char*>(library_->super->s_volume_name);
    return std::string(name, strnlen(name, sizeof library_->super->s_volume_name));
}

std::unique_ptr<VolumeFormat> MakeExtFormat(VolumeIo& io) {
    return std::make_unique<ExtFormat>(io);
}

FileSystemFactory ExtFactory() {
    return FactoryOf(MakeExtFormat);
}

NTSTATUS LooksLikeExt(VolumeIo& io, bool& ext) {
    const std::uint32_t sector = io.SectorSize();
    const std::uint32_t length = std::max<std::uint32_t>(sector, SUPERBLOCK_OFFSET + SUPERBLOCK_SIZE);
    ext = false;
    if (io.Size() < length) return STATUS_SUCCESS;
    std::vector<std::uint8_t> head(length);
    const NTSTATUS status = io.Read(0, head.data(), length, nullptr);
    if (!NT_SUCCESS(status)) return status;
    const std::uint8_t* magic = &head[SUPERBLOCK_OFFSET + offsetof(ext2_super_block, s_magic)];
    ext = (magic[0] | magic[1] << 8) == EXT2_SUPER_MAGIC;
    return STATUS_SUCCESS;
}

}  // namespace machine
