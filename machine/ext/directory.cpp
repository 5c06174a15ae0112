#include <algorithm>
#include <random>
#include "machine/ext/format.h"
#include "machine/ext/inode.h"
#include "machine/names.h"
#include "posix/utf.h"

namespace machine {
namespace {

constexpr ULONG kDirectoryAttribute = 0x10;

char Lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

bool EqualIgnoringCase(const std::string& a, const std::string& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return Lower(x) == Lower(y); });
}

std::uint32_t InodeOf(const FileId& id) {
    return static_cast<std::uint32_t>(id.number);
}

struct Item {
    std::string name;
    std::uint32_t inode;
};

int Collect(ext2_ino_t, int entry, ext2_dir_entry* found, int, int, char*, void* items) {
    if (entry != DIRENT_OTHER_FILE || found->inode == 0) return 0;
    std::string name(found->name, static_cast<std::size_t>(ext2fs_dirent_name_len(found)));
    static_cast<std::vector<Item>*>(items)->push_back({std::move(name), found->inode});
    return 0;
}

NTSTATUS ReadItems(ExtFormat& format, const FileId& directory, std::vector<Item>& items) {
    const long error = ext2fs_dir_iterate2(format.Library(), InodeOf(directory), 0, nullptr, Collect, &items);
    return error == 0 ? STATUS_SUCCESS : format.Failed(error);
}

// Looks a name up as it is spelt, or else spelt in another case, as `name` is then. `inode` is 0 when it is not
// there.
NTSTATUS FindInode(ExtFormat& format, const FileId& directory, std::string& name, std::uint32_t& inode) {
    inode = 0;
    const long error = ext2fs_lookup(format.Library(), InodeOf(directory), name.data(),
                                     static_cast<int>(name.size()), nullptr, &inode);
    if (error == 0) return STATUS_SUCCESS;
    if (error != EXT2_ET_FILE_NOT_FOUND) return format.Failed(error);
    inode = 0;
    std::vector<Item> items;
    const NTSTATUS status = ReadItems(format, directory, items);
    if (!NT_SUCCESS(status)) return status;
    for (const Item& item : items)
        if (inode == 0 && EqualIgnoringCase(item.name, name)) name = item.name, inode = item.inode;
    return STATUS_SUCCESS;
}

// Makes room in a directory that has none, and tries again.
template <class Add>
long WithRoom(ext2_filsys library, std::uint32_t directory, const Add& add) {
    long error = add();
    if (error != EXT2_ET_DIR_NO_SPACE) return error;
    error = ext2fs_expand_dir(library, directory);
    return error == 0 ? add() : error;
}

NTSTATUS StoreNewFile(ExtFormat& format, const FileId& id, ULONG attributes) {
    ext2_filsys library = format.Library();
    ExtInode inode(id);
    inode->i_mode = LINUX_S_IFREG;
    inode->i_links_count = 1;
    inode->i_generation = static_cast<__u32>(id.generation);
    inode.Touch();
    inode->i_atime = inode->i_mtime;
    inode.SetAttributes(attributes);
    long error = 0;
    if (ext2fs_has_feature_extents(library->super)) {
        inode->i_flags |= EXT4_EXTENTS_FL;
        ext2_extent_handle_t handle = nullptr;
        error = ext2fs_extent_open2(library, inode.Number(), inode.Get(), &handle);  // makes the empty tree
        ext2fs_extent_free(handle);
    }
    if (error == 0) error = ext2fs_write_new_inode(library, inode.Number(), inode.Get());
    return error == 0 ? STATUS_SUCCESS : format.Failed(error);
}

}  // namespace

FileId ExtFormat::Root() const {
    return {EXT2_ROOT_INO, 0};
}

bool ExtFormat::IsName(std::u16string_view name) const {
    const bool plain = IsPlainName(name) && name != u"." && name != u".." && name.find(u'/') == name.npos;
    return plain && posix::ToUtf8(name).size() <= EXT2_NAME_LEN;
}

NTSTATUS ExtFormat::LookUp(FileLink& link, bool& exists, FileId& id) {
    ExtInode directory(link.parent);
    NTSTATUS status = directory.Load(*this);
    if (!NT_SUCCESS(status)) return status;
    if (!directory.IsDirectory()) return STATUS_NOT_A_DIRECTORY;
    std::string name = posix::ToUtf8(link.name);
    std::uint32_t inode = 0;
    status = FindInode(*this, link.parent, name, inode);
    exists = inode != 0;
    id = {inode, 0};
    // Spelt in another case it is UTF-8 as well.
    if (exists && !posix::FromUtf8(name, link.name)) return STATUS_FILE_CORRUPT_ERROR;
    return status;
}

NTSTATUS ExtFormat::Describe(FileId& id, DirectoryEntry& entry) {
    ExtInode inode(id);
    const NTSTATUS status = inode.Load(*this);
    if (!NT_SUCCESS(status)) return status;
    id.generation = inode->i_generation;
    entry.directory = inode.IsDirectory();
    entry.foreign = !entry.directory && !inode.IsPlainFile();
    entry.size = entry.directory ? 0 : inode.Size();
    entry.attributes =
        (inode->i_flags & EXT2_IMMUTABLE_FL) != 0 ? FILE_ATTRIBUTE_SYSTEM : FILE_ATTRIBUTE_NORMAL;
    if (entry.directory) entry.attributes = kDirectoryAttribute;
    return STATUS_SUCCESS;
}

NTSTATUS ExtFormat::ReadDirectory(const FileId& id, std::vector<Name>& names) {
    std::vector<Item> items;
    const NTSTATUS status = ReadItems(*this, id, items);
    if (!NT_SUCCESS(status)) return status;
    for (const Item& item : items) {
        Name name{{}, {item.inode, 0}};
        if (posix::FromUtf8(item.name, name.name)) names.push_back(std::move(name));
    }
    return STATUS_SUCCESS;
}

NTSTATUS ExtFormat::ParentChanged(const FileLink& link) {
    ExtInode directory(link.parent);
    NTSTATUS status = directory.Load(*this);
    if (!NT_SUCCESS(status)) return status;
    directory.Touch();
    status = directory.Store(*this);
    if (!NT_SUCCESS(status)) return status;
    const long error = DirectoryChanged(directory.Number());
    return error == 0 ? STATUS_SUCCESS : Failed(error);
}

NTSTATUS ExtFormat::Create(const FileLink& link, bool directory, ULONG attributes, FileId& id) {
    return directory ? CreateDirectory(link) : CreateFile(link, attributes, id);
}

NTSTATUS ExtFormat::CreateFile(const FileLink& link, ULONG attributes, FileId& id) {
    std::random_device random;
    const std::uint32_t parent = InodeOf(link.parent);
    const std::string name = posix::ToUtf8(link.name);
    std::uint32_t inode = 0;
    long error = ext2fs_new_inode(library_, parent, LINUX_S_IFREG, nullptr, &inode);
    if (error != 0) return Failed(error);
    id = {inode, static_cast<std::uint32_t>(random())};
    const NTSTATUS status = StoreNewFile(*this, id, attributes);
    if (!NT_SUCCESS(status)) return status;
    ext2fs_inode_alloc_stats2(library_, inode, +1, 0);
    error = WithRoom(library_, parent,
                     [&] { return ext2fs_link(library_, parent, name.c_str(), inode, EXT2_FT_REG_FILE); });
    return error == 0 ? ParentChanged(link) : Failed(error);
}

NTSTATUS ExtFormat::CreateDirectory(const FileLink& link) {
    const std::uint32_t parent = InodeOf(link.parent);
    const std::string name = posix::ToUtf8(link.name);
    std::uint32_t inode = 0;
    long error = ext2fs_new_inode(library_, parent, LINUX_S_IFDIR, nullptr, &inode);
    if (error == 0)
        error = WithRoom(library_, parent, [&] { return ext2fs_mkdir(library_, parent, inode, name.c_str()); });
    if (error == 0) error = DirectoryChanged(inode);
    return error == 0 ? ParentChanged(link) : Failed(error);
}

NTSTATUS ExtFormat::Remove(const FileLink& link, const FileId& id) {
    ExtInode inode(id);
    NTSTATUS status = inode.Load(*this);
    if (!NT_SUCCESS(status)) return status;
    const bool last = inode->i_links_count == 1;
    long error =
        ext2fs_unlink(library_, InodeOf(link.parent), posix::ToUtf8(link.name).c_str(), inode.Number(), 0);
    // Changes the stored inode.
    if (error == 0 && last) error = ext2fs_free_ext_attr(library_, inode.Number(), nullptr);
    if (error != 0) return Failed(error);
    status = inode.Load(*this);
    if (NT_SUCCESS(status) && last) status = inode.Empty(*this);
    if (!NT_SUCCESS(status)) return status;
    --inode->i_links_count;
    inode.Touch();
    if (last) {
        inode->i_dtime = inode->i_ctime;
        ext2fs_inode_alloc_stats2(library_, inode.Number(), -1, 0);
    }
    status = inode.Store(*this);
    return NT_SUCCESS(status) ? ParentChanged(link) : status;
}

}  // namespace machine
