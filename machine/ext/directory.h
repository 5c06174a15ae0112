// Names on an ext volume: where a path leads, and making, removing and listing the entries of directories.
// Every routine is part of one operation.
//
// Names are UTF-8 on the volume. They are told apart by case there and not by the host kernel's callers: a name
// that is spelt otherwise is found when no name is spelt so.
#pragma once
#include <cstdint>
#include <string>
#include <vector>
#include "machine/files/directory_entry.h"
#include "machine/ext/volume.h"

namespace machine {

// One file in the course of time: the number of its inode, and what tells the inode's users apart.
struct ExtReference {
    std::uint32_t inode = 0;
    std::uint32_t generation = 0;
    bool operator==(const ExtReference&) const = default;
};

// One name of a file or directory.
struct ExtLink {
    std::uint32_t parent = 0;  // inode of the directory
    std::string name;
};

enum class ExtKind {
    File,
    Directory,
    Other,  // links, devices, and files whose data the guest alone can read or must not find changed
};

// Where a path leads.
struct ExtPlace {
    ExtLink link;  // of the last component, as it stands in the directory; an empty name for the root itself
    bool exists = false;
    ExtReference reference;  // of what stands there, where `exists`
    ExtKind kind = ExtKind::File;
    DirectoryEntry entry;
};

// Success also when only the last component is missing. STATUS_OBJECT_PATH_NOT_FOUND when an earlier one is or
// is no directory, STATUS_OBJECT_NAME_INVALID for a malformed path.
[[nodiscard]] NTSTATUS LocateExtPath(const ExtOperation& operation, const std::u16string& path,
                                     ExtPlace& place);
// Entries whose names are not UTF-8 are left out: no path can name them.
[[nodiscard]] NTSTATUS ListExtDirectory(const ExtOperation& operation, std::uint32_t inode,
                                        std::vector<DirectoryEntry>& entries);

// Makes an empty file at a place where nothing stands and tells its reference. With FILE_ATTRIBUTE_SYSTEM it is
// root's alone and immutable: no program of the guest writes, renames or removes it by mistake.
[[nodiscard]] NTSTATUS CreateExtFile(const ExtOperation& operation, const ExtLink& link, ULONG attributes,
                                     ExtReference& reference);
[[nodiscard]] NTSTATUS CreateExtDirectory(const ExtOperation& operation, const ExtLink& link);
// Removes one name of a file, and the file with its last one.
[[nodiscard]] NTSTATUS RemoveExtFile(const ExtOperation& operation, const ExtLink& link, std::uint32_t inode);

}  // namespace machine
