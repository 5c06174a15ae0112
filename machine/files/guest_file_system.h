// What a file system offers to programs of the guest beyond the host kernel's file calls.
#pragma once
#include <cstdint>
#include <string>
#include <vector>
#include "machine/files/directory_entry.h"
#include "machine/files/file_system.h"

namespace machine {

class GuestFileSystem : public FileSystem {
public:
    // Gives a file or directory another path on the same volume; an existing target is
    // STATUS_OBJECT_NAME_COLLISION. A directory with open files below it stays (STATUS_ACCESS_DENIED).
    // STATUS_NOT_SUPPORTED where the file system cannot.
    [[nodiscard]] virtual NTSTATUS Rename(const std::u16string& from, const std::u16string& to) = 0;
    [[nodiscard]] virtual NTSTATUS MakeDirectory(const std::u16string& path) = 0;
    // The entries of a directory without the file system's own files, in the order of the directory's index.
    [[nodiscard]] virtual NTSTATUS List(const std::u16string& path, std::vector<DirectoryEntry>& entries) = 0;
    // What stands at a path; STATUS_OBJECT_NAME_NOT_FOUND or STATUS_OBJECT_PATH_NOT_FOUND when nothing does.
    [[nodiscard]] virtual NTSTATUS Query(const std::u16string& path, DirectoryEntry& entry) = 0;
    [[nodiscard]] virtual NTSTATUS FreeSpace(std::uint64_t& bytes) = 0;
    // The volume's name for people, UTF-8; empty when it has none or cannot be read now.
    virtual std::string Label() = 0;
    // Why nothing can be changed, one line without a full stop; empty when it can.
    virtual std::string ReadOnlyReason() const = 0;
    bool ReadOnly() const { return !ReadOnlyReason().empty(); }
    // Sends a flush down the volume's stack; everything this file system knows is at the stack already.
    [[nodiscard]] virtual NTSTATUS Flush() = 0;
};

}  // namespace machine
