#include "machine/ext/names.h"
#include <algorithm>
#include "machine/ext/library.h"

namespace machine {

// The names by which filters know metadata are those of the platform's own file system.
ExtNames::ExtNames(VolumeIo& io)
    : sector_(io.SectorSize()),
      superblock_(io, u"\\$MftMirr"),
      bitmap_(io, u"\\$BitMap"),
      inodes_(io, u"\\$Mft"),
      directory_(io, u"\\$Directory"),
      extents_(io, u"\\$Mft") {}

void ExtNames::AddTable(std::uint64_t block, std::uint64_t count, MetadataKind kind) {
    tables_.push_back({block, count, kind});
}

// The groups' descriptors carry the checksums of the bitmaps, and count with them.
void ExtNames::SetLibrary(struct_ext2_filsys* library) {
    tables_.clear();
    directoryBlocks_.clear();
    blockSize_ = library == nullptr ? 0 : library->blocksize;
    if (library == nullptr) return;
    for (dgrp_t i = 0; i < library->desc_blocks; ++i)
        AddTable(ext2fs_descriptor_block_loc2(library, library->super->s_first_data_block, i), 1,
                 MetadataKind::ClusterBitmap);
    for (dgrp_t group = 0; group < library->group_desc_count; ++group) {
        AddTable(ext2fs_block_bitmap_loc(library, group), 1, MetadataKind::ClusterBitmap);
        AddTable(ext2fs_inode_bitmap_loc(library, group), 1, MetadataKind::RecordBitmap);
        AddTable(ext2fs_inode_table_loc(library, group), library->inode_blocks_per_group, MetadataKind::Record);
    }
    std::sort(tables_.begin(), tables_.end(), [](const Table& a, const Table& b) { return a.block < b.block; });
}

void ExtNames::EndOperation() {
    MetadataNames::EndOperation();
    directoryBlocks_.clear();
}

MetadataKind ExtNames::KindAt(std::uint64_t offset) const {
    if (offset < SUPERBLOCK_OFFSET + SUPERBLOCK_SIZE && offset + sector_ > SUPERBLOCK_OFFSET)
        return MetadataKind::State;
    if (blockSize_ == 0) return MetadataKind::Other;
    const std::uint64_t block = offset / blockSize_;
    if (directoryBlocks_.contains(block)) return MetadataKind::Directory;
    auto table = std::upper_bound(tables_.begin(), tables_.end(), block,
                                  [](std::uint64_t at, const Table& t) { return at < t.block; });
    if (table == tables_.begin()) return MetadataKind::Other;
    --table;
    return block < table->block + table->count ? table->kind : MetadataKind::Other;
}

PFILE_OBJECT ExtNames::ObjectOf(MetadataKind kind) {
    switch (kind) {
        case MetadataKind::State:
            return superblock_.Get();
        case MetadataKind::ClusterBitmap:
        case MetadataKind::RecordBitmap:
            return bitmap_.Get();
        case MetadataKind::Record:
        case MetadataKind::RecordMirror:
            return inodes_.Get();
        case MetadataKind::Directory:
            return directory_.Get();
        case MetadataKind::Other:
            break;
    }
    return Other() != nullptr ? Other() : extents_.Get();
}

}  // namespace machine
