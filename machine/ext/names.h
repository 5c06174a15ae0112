// The metadata of an ext file system by its place, and the file objects that requests for it carry.
#pragma once
#include <cstdint>
#include <set>
#include <vector>
#include "machine/files/metadata_names.h"
#include "machine/files/named_file_object.h"

struct struct_ext2_filsys;

namespace machine {

class ExtNames final : public MetadataNames {
public:
    explicit ExtNames(VolumeIo& io);

    // Learns where the tables of a file system lie; null forgets them.
    void SetLibrary(struct_ext2_filsys* library);
    // The directory's blocks are known as such for the rest of the operation.
    void AddDirectoryBlock(std::uint64_t block) { directoryBlocks_.insert(block); }

    void EndOperation() override;
    PFILE_OBJECT Directory() override { return extents_.Get(); }
    PFILE_OBJECT FileMetadata() override { return extents_.Get(); }
    MetadataKind KindAt(std::uint64_t offset) const override;
    bool IsDirectoryData(const void*, std::size_t) const override { return false; }
    PFILE_OBJECT ObjectOf(MetadataKind kind) override;

private:
    struct Table {
        std::uint64_t block, count;
        MetadataKind kind;
    };
    void AddTable(std::uint64_t block, std::uint64_t count, MetadataKind kind);

    const std::uint32_t sector_;
    std::uint64_t blockSize_ = 0;  // 0: no tables are known
    std::vector<Table> tables_;    // ascending by block
    std::set<std::uint64_t> directoryBlocks_;
    NamedFileObject superblock_, bitmap_, inodes_, directory_, extents_;
};

}  // namespace machine
