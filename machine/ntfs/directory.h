// Names on an NTFS volume: where a path leads, and making, removing, linking and listing the entries of
// directories. Every routine is part of one operation and opens what it needs for itself.
//
// Files are named by their reference: the number of their record, with a sequence number in the upper 16 bits
// that tells a record's users in the course of time apart.
#pragma once
#include <cstdint>
#include <string>
#include <vector>
#include "machine/files/directory_entry.h"
#include "machine/ntfs/inode.h"
#include "machine/ntfs/volume.h"

namespace machine {

inline std::uint64_t RecordOf(std::uint64_t reference) {
    return reference & 0xFFFF'FFFF'FFFF;
}

// One name of a file or directory.
struct NtfsLink {
    std::uint64_t parent = 0;  // reference of the directory
    std::u16string name;
};

// Where a path leads.
struct NtfsPlace {
    NtfsLink link;                     // of the last component; an empty name for the root itself
    std::vector<std::uint64_t> above;  // record numbers of the directories on the way, the root first
    bool exists = false;
    std::uint64_t reference = 0;  // of what stands there, where `exists`
    DirectoryEntry entry;
};

// Success also when only the last component is missing. STATUS_OBJECT_PATH_NOT_FOUND when an earlier one is,
// STATUS_OBJECT_NAME_INVALID for a malformed path, STATUS_ACCESS_DENIED for the file system's own files.
[[nodiscard]] NTSTATUS LocateNtfsPath(const NtfsOperation& operation, const std::u16string& path,
                                      NtfsPlace& place);
[[nodiscard]] NTSTATUS OpenNtfsInode(const NtfsOperation& operation, std::uint64_t reference, NtfsInode& inode);
[[nodiscard]] NTSTATUS ListNtfsDirectory(const NtfsOperation& operation, std::uint64_t reference,
                                         std::vector<DirectoryEntry>& entries);

// Makes an empty file or directory at a place where nothing stands and tells its reference.
[[nodiscard]] NTSTATUS CreateNtfsEntry(const NtfsOperation& operation, const NtfsLink& link, bool directory,
                                       ULONG attributes, std::uint64_t& reference);
// Removes one name, and the file or empty directory with its last name.
[[nodiscard]] NTSTATUS RemoveNtfsEntry(const NtfsOperation& operation, const NtfsLink& link,
                                       std::uint64_t reference);
// Gives a file or directory one more name, where nothing stands.
[[nodiscard]] NTSTATUS AddNtfsLink(const NtfsOperation& operation, const NtfsLink& link,
                                   std::uint64_t reference);

// Sets the attributes that a caller may choose; for an inode that is about to be closed.
void SetNtfsAttributes(const NtfsInode& inode, ULONG attributes);
// Brings the directory's copy of a file's sizes and times up to date, and the times to now.
[[nodiscard]] NTSTATUS RefreshNtfsEntry(const NtfsOperation& operation, std::uint64_t reference);

}  // namespace machine
