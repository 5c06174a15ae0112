#include <algorithm>
#include <cstring>
#include <ext2fs/ext2fs.h>
#include "inspect/digest_of.h"
#include "inspect/file_table.h"

namespace inspect {
namespace {

constexpr std::uint64_t kSuperblock = 1024;

// The library opens devices by name; the one that it is to find stands here meanwhile.
thread_local ByteReader* opening = nullptr;

extern struct_io_manager gManager;

errcode_t OpenChannel(const char*, int, io_channel* channel) {
    void* memory = nullptr;
    const errcode_t error = ext2fs_get_memzero(sizeof(struct_io_channel), &memory);
    if (error != 0) return error;
    auto* made = static_cast<io_channel>(memory);
    made->magic = EXT2_ET_MAGIC_IO_CHANNEL;
    made->manager = &gManager;
    made->block_size = 1024;  // until the library has read the superblock
    made->refcount = 1;
    made->private_data = opening;
    *channel = made;
    return 0;
}

errcode_t CloseChannel(io_channel channel) {
    if (--channel->refcount == 0) ext2fs_free_mem(&channel);
    return 0;
}

errcode_t SetBlockSize(io_channel channel, int size) {
    channel->block_size = size;
    return 0;
}

// A negative count is one of bytes.
errcode_t ReadBlocks(io_channel channel, unsigned long long block, int count, void* data) {
    const auto size = static_cast<std::uint64_t>(channel->block_size);
    const std::uint64_t length = count < 0 ? static_cast<std::uint64_t>(-static_cast<std::int64_t>(count))
                                           : static_cast<std::uint64_t>(count) * size;
    auto& reader = *static_cast<ByteReader*>(channel->private_data);
    return reader.Read(block * size, data, length) ? 0 : EXT2_ET_SHORT_READ;
}

errcode_t ReadBlocks32(io_channel channel, unsigned long block, int count, void* data) {
    return ReadBlocks(channel, block, count, data);
}

struct_io_manager MakeManager() {
    struct_io_manager manager{};
    manager.magic = EXT2_ET_MAGIC_IO_MANAGER;
    manager.name = "volume";
    manager.open = OpenChannel;
    manager.close = CloseChannel;
    manager.set_blksize = SetBlockSize;
    manager.read_blk = ReadBlocks32;
    manager.write_blk = [](io_channel, unsigned long, int, const void*) -> errcode_t {
        return EXT2_ET_RO_FILSYS;
    };
    manager.flush = [](io_channel) -> errcode_t { return 0; };
    manager.read_blk64 = ReadBlocks;
    manager.write_blk64 = [](io_channel, unsigned long long, int, const void*) -> errcode_t {
        return EXT2_ET_RO_FILSYS;
    };
    return manager;
}

struct_io_manager gManager = MakeManager();

struct Close {
    void operator()(ext2_filsys library) const { ext2fs_free(library); }
    void operator()(ext2_file_t file) const { ext2fs_file_close(file); }
    void operator()(ext2_extent_handle_t handle) const { ext2fs_extent_free(handle); }
};
using Library = std::unique_ptr<struct_ext2_filsys, Close>;

void Append(std::vector<Extent>& extents, std::uint64_t offset, std::uint64_t length) {
    if (!extents.empty() && extents.back().End() == offset)
        extents.back().length += length;
    else
        extents.push_back({offset, length});
}

class ExtTable final : public FileTable {
public:
    explicit ExtTable(VolumeView& view) : FileTable(view) {
        opening = &reader_;
        ext2_filsys opened = nullptr;
        const int flags = EXT2_FLAG_64BITS | EXT2_FLAG_SKIP_MMP | EXT2_FLAG_IGNORE_CSUM_ERRORS;
        const errcode_t error = ext2fs_open2("volume", nullptr, flags, 0, 0, &gManager, &opened);
        opening = nullptr;
        library_.reset(error == 0 ? opened : nullptr);
        if (error != 0) throw Error("the ext volume makes no sense: " + std::string(error_message(error)));
        if (ext2fs_read_block_bitmap(opened) != 0) throw Error("the ext volume's block bitmaps cannot be read");
    }

    FileSystemKind Kind() const override { return FileSystemKind::Ext; }
    FileId Root() const override { return EXT2_ROOT_INO; }
    FileId First() const override { return 1; }
    FileId End() const override { return FileId{library_->super->s_inodes_count} + 1; }
    std::uint32_t BlockBytes() const override { return library_->blocksize; }
    std::string Unwritten() const override {
        if (!ext2fs_has_feature_journal_needs_recovery(library_->super)) return {};
        return "the file system is in use: what its journal alone holds so far is not among the changes";
    }

    bool Read(FileId id, FileRecord& record) override {
        record = {};
        record.id = id;
        if (id < First() || id >= End()) return false;
        std::vector<char> bytes(EXT2_INODE_SIZE(library_->super));
        auto* inode = reinterpret_cast<ext2_inode_large*>(bytes.data());
        auto* plain = reinterpret_cast<ext2_inode*>(bytes.data());
        const auto number = static_cast<ext2_ino_t>(id);
        if (ext2fs_read_inode_full(library_.get(), number, plain, static_cast<int>(bytes.size())) != 0) {
            ++damaged_;
            return false;
        }
        if (inode->i_links_count == 0 || inode->i_mode == 0) return false;
        Describe(*inode, bytes, record);
        if (!AddContent(number, *plain, record)) ++damaged_;
        const auto [first, end] = Names().equal_range(number);
        for (auto name = first; name != end; ++name) record.names.push_back(name->second);
        std::sort(record.names.begin(), record.names.end());
        return true;
    }

    std::size_t Content(FileId id, std::uint64_t offset, void* buffer, std::size_t length) override {
        ext2_file_t opened = nullptr;
        unsigned done = 0;
        errcode_t error = ext2fs_file_open(library_.get(), static_cast<ext2_ino_t>(id), 0, &opened);
        const std::unique_ptr<std::remove_pointer_t<ext2_file_t>, Close> file(error == 0 ? opened : nullptr);
        if (error == 0) error = ext2fs_file_llseek(opened, offset, EXT2_SEEK_SET, nullptr);
        if (error == 0) error = ext2fs_file_read(opened, buffer, static_cast<unsigned>(length), &done);
        if (error != 0) throw Error("its content cannot be read: " + std::string(error_message(error)));
        return done;
    }

    bool IsInUse(std::uint64_t offset) override {
        const blk64_t block = offset / library_->blocksize;
        return block < library_->super->s_first_data_block || block >= ext2fs_blocks_count(library_->super) ||
               ext2fs_test_block_bitmap2(library_->block_map, block) != 0;
    }

    std::vector<std::pair<Extent, std::string>> Tables() override {
        const std::uint64_t size = library_->blocksize;
        std::vector<std::pair<Extent, std::string>> tables = {{{kSuperblock, 1024}, "the superblock"}};
        const std::uint64_t inodes = std::uint64_t{library_->inode_blocks_per_group} * size;
        for (dgrp_t group = 0; group < library_->group_desc_count; ++group) {
            tables.push_back(
                {{ext2fs_inode_table_loc(library_.get(), group) * size, inodes}, "an inode table"});
            tables.push_back({{ext2fs_block_bitmap_loc(library_.get(), group) * size, size}, "a block bitmap"});
            tables.push_back(
                {{ext2fs_inode_bitmap_loc(library_.get(), group) * size, size}, "an inode bitmap"});
        }
        return tables;
    }

    std::uint32_t RecordBytes() const override { return EXT2_INODE_SIZE(library_->super); }

protected:
    bool RawRecords(FileId first, std::uint64_t count, std::uint8_t* bytes) override {
        const std::uint64_t size = RecordBytes(), perGroup = library_->super->s_inodes_per_group;
        while (count != 0) {
            const std::uint64_t at = (first - 1) % perGroup, part = std::min(count, perGroup - at);
            const auto group = static_cast<dgrp_t>((first - 1) / perGroup);
            const std::uint64_t table = ext2fs_inode_table_loc(library_.get(), group) * library_->blocksize;
            // A table that was never initialised holds whatever was there before.
            if (ext2fs_bg_flags_test(library_.get(), group, EXT2_BG_INODE_UNINIT))
                std::memset(bytes, 0, part * size);
            else if (!reader_.Read(table + at * size, bytes, part * size))
                return false;
            bytes += part * size, first += part, count -= part;
        }
        return true;
    }

    void AddRenamed(FileTable& other, std::set<FileId>& ids) override {
        auto mine = ByName(Names()), others = ByName(static_cast<ExtTable&>(other).Names());
        std::vector<std::pair<ext2_ino_t, FileName>> differ;
        std::set_symmetric_difference(mine.begin(), mine.end(), others.begin(), others.end(),
                                      std::back_inserter(differ));
        for (const auto& [inode, name] : differ) ids.insert(inode);
    }

    std::optional<FileId> Lookup(FileId directory, const std::string& name) override {
        ext2_ino_t found = 0;
        const errcode_t error = ext2fs_lookup(library_.get(), static_cast<ext2_ino_t>(directory), name.data(),
                                              static_cast<int>(name.size()), nullptr, &found);
        if (error != 0) return std::nullopt;
        return found;
    }

    bool IsSystemId(FileId id) const override {
        return id < EXT2_FIRST_INODE(library_->super) && id != EXT2_ROOT_INO;
    }
    bool IsBackslashSeparator() const override { return false; }

private:
    using NameIndex = std::unordered_multimap<ext2_ino_t, FileName>;

    static std::vector<std::pair<ext2_ino_t, FileName>> ByName(const NameIndex& names) {
        std::vector<std::pair<ext2_ino_t, FileName>> list(names.begin(), names.end());
        std::sort(list.begin(), list.end());
        return list;
    }

    static void Describe(const ext2_inode_large& inode, const std::vector<char>& bytes, FileRecord& record) {
        record.type = LINUX_S_ISDIR(inode.i_mode)   ? FileRecord::Type::Directory
                      : LINUX_S_ISREG(inode.i_mode) ? FileRecord::Type::File
                                                    : FileRecord::Type::Other;
        record.size = EXT2_I_SIZE(&inode);
        record.modified = inode.i_mtime;
        record.birth = std::uint64_t{inode.i_generation} << 32;
        DigestOf settings;
        settings.Add(&inode.i_mode, sizeof inode.i_mode);
        settings.Add(&inode.i_uid, sizeof inode.i_uid);
        settings.Add(&inode.i_gid, sizeof inode.i_gid);
        settings.Add(&inode.i_flags, sizeof inode.i_flags);
        settings.Add(&inode.i_file_acl, sizeof inode.i_file_acl);
        if (bytes.size() > EXT2_GOOD_OLD_INODE_SIZE) {
            const std::size_t fields = std::size_t{EXT2_GOOD_OLD_INODE_SIZE} + inode.i_extra_isize;
            const bool inlined = (inode.i_flags & EXT4_INLINE_DATA_FL) != 0;
            if (fields >= offsetof(ext2_inode_large, i_crtime_extra) + 4)
                record.birth ^= std::uint64_t{inode.i_crtime} << 32 ^ inode.i_crtime_extra;
            if (fields < bytes.size() && !inlined) settings.Add(&bytes[fields], bytes.size() - fields);
        }
        record.settings = settings.Value();
    }

    // False when where it lies makes no sense.
    bool AddContent(ext2_ino_t number, ext2_inode& inode, FileRecord& record) {
        if (inode.i_file_acl != 0)
            Append(record.tables, ext2fs_file_acl_block(library_.get(), &inode) * BlockBytes(), BlockBytes());
        if ((inode.i_flags & EXT4_INLINE_DATA_FL) != 0) {
            // More than an inode and a block of its attributes hold.
            std::string content(2 * std::size_t{library_->blocksize}, '\0');
            std::size_t length = content.size();
            if (ext2fs_inline_data_get(library_.get(), number, &inode, content.data(), &length) != 0)
                return false;
            content.resize(length);
            record.inlined = content;
            return true;
        }
        if (!ext2fs_inode_has_valid_blocks2(library_.get(), &inode)) {
            record.inlined.assign(reinterpret_cast<const char*>(inode.i_block), sizeof inode.i_block);
            return true;
        }
        return (inode.i_flags & EXT4_EXTENTS_FL) != 0 ? AddExtents(number, inode, record)
                                                      : AddBlocks(number, record);
    }

    bool AddExtents(ext2_ino_t number, ext2_inode& inode, FileRecord& record) {
        ext2_extent_handle_t opened = nullptr;
        if (ext2fs_extent_open2(library_.get(), number, &inode, &opened) != 0) return false;
        const std::unique_ptr<std::remove_pointer_t<ext2_extent_handle_t>, Close> handle(opened);
        ext2fs_extent extent;
        errcode_t error = ext2fs_extent_get(opened, EXT2_EXTENT_ROOT, &extent);
        for (; error == 0; error = ext2fs_extent_get(opened, EXT2_EXTENT_NEXT, &extent)) {
            if ((extent.e_flags & EXT2_EXTENT_FLAGS_SECOND_VISIT) != 0) continue;
            const bool leaf = (extent.e_flags & EXT2_EXTENT_FLAGS_LEAF) != 0;
            const std::uint64_t blocks = leaf ? extent.e_len : 1;
            Append(leaf ? record.data : record.tables, extent.e_pblk * BlockBytes(), blocks * BlockBytes());
        }
        return error == EXT2_ET_EXTENT_NO_NEXT || error == EXT2_ET_NO_CURRENT_NODE;
    }

    bool AddBlocks(ext2_ino_t number, FileRecord& record) {
        const auto add = [](ext2_filsys library, blk64_t* block, e2_blkcnt_t count, blk64_t, int, void* to) {
            auto& found = *static_cast<FileRecord*>(to);
            Append(count >= 0 ? found.data : found.tables, *block * library->blocksize, library->blocksize);
            return 0;
        };
        return ext2fs_block_iterate3(library_.get(), number, BLOCK_FLAG_READ_ONLY, nullptr, add, &record) == 0;
    }

    // By inode, out of every directory; names stand nowhere else.
    const NameIndex& Names() {
        if (!names_) {
            names_.emplace();
            constexpr std::uint64_t kAtOnce = 1024;
            for (FileId first = First(); first < End(); first += kAtOnce)
                AddNames(first, std::min<std::uint64_t>(kAtOnce, End() - first));
        }
        return *names_;
    }

    void AddNames(FileId first, std::uint64_t count) {
        const std::size_t size = RecordBytes();
        std::vector<std::uint8_t> bytes(count * size);
        if (!RawRecords(first, count, bytes.data())) throw Error("the volume's inode tables cannot be read");
        for (std::uint64_t i = 0; i < count; ++i) {
            ext2_inode inode;
            std::memcpy(&inode, &bytes[i * size], sizeof inode);
            if (!LINUX_S_ISDIR(inode.i_mode) || inode.i_links_count == 0) continue;
            const auto directory = static_cast<ext2_ino_t>(first + i);
            if (ext2fs_dir_iterate2(library_.get(), directory, 0, nullptr, AddEntry, &*names_) != 0) ++damaged_;
        }
    }

    static int AddEntry(ext2_ino_t directory, int entry, ext2_dir_entry* found, int, int, char*, void* names) {
        const bool named = entry == DIRENT_OTHER_FILE && found->inode != 0;
        if (named)
            static_cast<NameIndex*>(names)->emplace(
                found->inode,
                FileName{directory, {found->name, static_cast<std::size_t>(ext2fs_dirent_name_len(found))}});
        return 0;
    }

    Library library_;
    std::optional<NameIndex> names_;
};

}  // namespace

std::unique_ptr<FileTable> OpenExtTable(VolumeView& view) {
    ByteReader reader(view);
    std::uint8_t magic[2];
    if (!reader.Read(kSuperblock + 56, magic, sizeof magic)) return nullptr;
    if (magic[0] != 0x53 || magic[1] != 0xEF) return nullptr;
    return std::make_unique<ExtTable>(view);
}

}  // namespace inspect
