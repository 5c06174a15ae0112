#include "machine/ext/directory.h"
#include <algorithm>
#include <random>
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

bool ToName(const std::u16string& part, std::string& name) {
    if (!IsPlainName(part) || part == u"." || part == u".." || part.find(u'/') != std::u16string::npos)
        return false;
    name = posix::ToUtf8(part);
    return !name.empty() && name.size() <= EXT2_NAME_LEN;
}

bool SplitPath(const std::u16string& path, std::vector<std::string>& names) {
    if (path.empty() || path[0] != u'\\') return false;
    for (std::size_t at = 1; at < path.size();) {
        const std::size_t end = std::min(path.find(u'\\', at), path.size());
        std::string name;
        if (!ToName(path.substr(at, end - at), name)) return false;
        names.push_back(std::move(name));
        at = end + 1;
    }
    return path.size() == 1 || path.back() != u'\\';
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

NTSTATUS ReadItems(const ExtOperation& operation, std::uint32_t directory, std::vector<Item>& items) {
    const long error = ext2fs_dir_iterate2(operation.Library(), directory, 0, nullptr, Collect, &items);
    return error == 0 ? STATUS_SUCCESS : operation.Failed(error);
}

// Looks one name up in a directory, and spells it as the directory does. `inode` is 0 when it is not there.
NTSTATUS LookUp(const ExtOperation& operation, ExtLink& link, std::uint32_t& inode) {
    inode = 0;
    const long error = ext2fs_lookup(operation.Library(), link.parent, link.name.data(),
                                     static_cast<int>(link.name.size()), nullptr, &inode);
    if (error == 0) return STATUS_SUCCESS;
    if (error != EXT2_ET_FILE_NOT_FOUND) return operation.Failed(error);
    inode = 0;
    std::vector<Item> items;
    const NTSTATUS status = ReadItems(operation, link.parent, items);
    if (!NT_SUCCESS(status)) return status;
    for (const Item& item : items)
        if (inode == 0 && EqualIgnoringCase(item.name, link.name)) link.name = item.name, inode = item.inode;
    return STATUS_SUCCESS;
}

void Describe(ExtInode& inode, DirectoryEntry& entry) {
    entry.directory = inode.IsDirectory();
    entry.size = entry.directory ? 0 : inode.Size();
    entry.attributes =
        (inode->i_flags & EXT2_IMMUTABLE_FL) != 0 ? FILE_ATTRIBUTE_SYSTEM : FILE_ATTRIBUTE_NORMAL;
    if (entry.directory) entry.attributes = kDirectoryAttribute;
}

ExtKind KindOf(const ExtInode& inode) {
    if (inode.IsDirectory()) return ExtKind::Directory;
    return inode.IsPlainFile() ? ExtKind::File : ExtKind::Other;
}

NTSTATUS DescribePlace(const ExtOperation& operation, ExtPlace& place) {
    ExtInode inode(place.reference.inode);
    const NTSTATUS status = inode.Load(operation);
    if (!NT_SUCCESS(status)) return status;
    place.reference.generation = inode->i_generation;
    place.kind = KindOf(inode);
    Describe(inode, place.entry);
    std::u16string name;
    if (posix::FromUtf8(place.link.name, name)) place.entry.name = std::move(name);
    return STATUS_SUCCESS;
}

// One more step: `place` is an existing directory, and then what `name` means there.
NTSTATUS Descend(const ExtOperation& operation, const std::string& name, ExtPlace& place) {
    ExtInode directory(place.reference.inode);
    NTSTATUS status = directory.Load(operation);
    if (!NT_SUCCESS(status)) return status;
    if (!directory.IsDirectory()) return STATUS_OBJECT_PATH_NOT_FOUND;
    place.link = {place.reference.inode, name};
    place.reference = {};
    status = LookUp(operation, place.link, place.reference.inode);
    place.exists = place.reference.inode != 0;
    return status;
}

NTSTATUS AddEntry(const ExtOperation& operation, const ExtLink& link, std::uint32_t inode) {
    ext2_filsys library = operation.Library();
    long error = ext2fs_link(library, link.parent, link.name.c_str(), inode, EXT2_FT_REG_FILE);
    if (error == EXT2_ET_DIR_NO_SPACE) {
        error = ext2fs_expand_dir(library, link.parent);
        if (error == 0) error = ext2fs_link(library, link.parent, link.name.c_str(), inode, EXT2_FT_REG_FILE);
    }
    return error == 0 ? STATUS_SUCCESS : operation.Failed(error);
}

NTSTATUS ParentChanged(const ExtOperation& operation, std::uint32_t parent) {
    ExtInode directory(parent);
    NTSTATUS status = directory.Load(operation);
    if (!NT_SUCCESS(status)) return status;
    directory.Touch();
    status = directory.Store(operation);
    if (!NT_SUCCESS(status)) return status;
    const long error = operation.DirectoryChanged(parent);
    return error == 0 ? STATUS_SUCCESS : operation.Failed(error);
}

NTSTATUS StoreNewFile(const ExtOperation& operation, std::uint32_t number, ULONG attributes,
                      std::uint32_t generation) {
    ext2_filsys library = operation.Library();
    ExtInode inode(number);
    inode->i_mode = LINUX_S_IFREG;
    inode->i_links_count = 1;
    inode->i_generation = generation;
    inode.Touch();
    inode->i_atime = inode->i_mtime;
    inode.SetAttributes(attributes);
    long error = 0;
    if (ext2fs_has_feature_extents(library->super)) {
        inode->i_flags |= EXT4_EXTENTS_FL;
        ext2_extent_handle_t handle = nullptr;
        error = ext2fs_extent_open2(library, number, inode.Get(), &handle);  // makes the empty tree
        ext2fs_extent_free(handle);
    }
    if (error == 0) error = ext2fs_write_new_inode(library, number, inode.Get());
    return error == 0 ? STATUS_SUCCESS : operation.Failed(error);
}

}  // namespace

NTSTATUS LocateExtPath(const ExtOperation& operation, const std::u16string& path, ExtPlace& place) {
    std::vector<std::string> names;
    if (!SplitPath(path, names)) return STATUS_OBJECT_NAME_INVALID;
    place = {};
    place.exists = true;
    place.reference.inode = EXT2_ROOT_INO;
    for (std::size_t i = 0; i < names.size(); ++i) {
        const NTSTATUS status = Descend(operation, names[i], place);
        if (!NT_SUCCESS(status)) return status;
        if (!place.exists) return i + 1 == names.size() ? STATUS_SUCCESS : STATUS_OBJECT_PATH_NOT_FOUND;
    }
    return DescribePlace(operation, place);
}

NTSTATUS ListExtDirectory(const ExtOperation& operation, std::uint32_t inode,
                          std::vector<DirectoryEntry>& entries) {
    std::vector<Item> items;
    const NTSTATUS status = ReadItems(operation, inode, items);
    if (!NT_SUCCESS(status)) return status;
    entries.clear();
    for (const Item& item : items) {
        DirectoryEntry entry;
        if (!posix::FromUtf8(item.name, entry.name)) continue;
        ExtInode found(item.inode);
        const NTSTATUS loaded = found.Load(operation);
        if (!NT_SUCCESS(loaded)) return loaded;
        Describe(found, entry);
        entries.push_back(std::move(entry));
    }
    return STATUS_SUCCESS;
}

NTSTATUS CreateExtFile(const ExtOperation& operation, const ExtLink& link, ULONG attributes,
                       ExtReference& reference) {
    static thread_local std::random_device random;
    std::uint32_t inode = 0;
    const long error = ext2fs_new_inode(operation.Library(), link.parent, LINUX_S_IFREG, nullptr, &inode);
    if (error != 0) return operation.Failed(error);
    reference = {inode, static_cast<std::uint32_t>(random())};
    NTSTATUS status = StoreNewFile(operation, inode, attributes, reference.generation);
    if (!NT_SUCCESS(status)) return status;
    ext2fs_inode_alloc_stats2(operation.Library(), inode, +1, 0);
    status = AddEntry(operation, link, inode);
    return NT_SUCCESS(status) ? ParentChanged(operation, link.parent) : status;
}

NTSTATUS CreateExtDirectory(const ExtOperation& operation, const ExtLink& link) {
    ext2_filsys library = operation.Library();
    std::uint32_t inode = 0;
    long error = ext2fs_new_inode(library, link.parent, LINUX_S_IFDIR, nullptr, &inode);
    if (error == 0) error = ext2fs_mkdir(library, link.parent, inode, link.name.c_str());
    if (error == EXT2_ET_DIR_NO_SPACE) {
        error = ext2fs_expand_dir(library, link.parent);
        if (error == 0) error = ext2fs_mkdir(library, link.parent, inode, link.name.c_str());
    }
    if (error == 0) error = operation.DirectoryChanged(inode);
    return error == 0 ? ParentChanged(operation, link.parent) : operation.Failed(error);
}

NTSTATUS RemoveExtFile(const ExtOperation& operation, const ExtLink& link, std::uint32_t number) {
    ext2_filsys library = operation.Library();
    ExtInode inode(number);
    NTSTATUS status = inode.Load(operation);
    if (!NT_SUCCESS(status)) return status;
    const bool last = inode->i_links_count == 1;
    long error = ext2fs_unlink(library, link.parent, link.name.c_str(), number, 0);
    if (error == 0 && last) error = ext2fs_free_ext_attr(library, number, nullptr);  // changes the stored inode
    if (error != 0) return operation.Failed(error);
    status = inode.Load(operation);
    if (NT_SUCCESS(status) && last) status = inode.Empty(operation);
    if (!NT_SUCCESS(status)) return status;
    --inode->i_links_count;
    inode.Touch();
    if (last) {
        inode->i_dtime = inode->i_ctime;
        ext2fs_inode_alloc_stats2(library, number, -1, 0);
    }
    status = inode.Store(operation);
    return NT_SUCCESS(status) ? ParentChanged(operation, link.parent) : status;
}

}  // namespace machine
