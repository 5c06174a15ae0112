// Where paths lead, and what directories hold, on any format. Parts of one operation.
#pragma once
#include <string>
#include <vector>
#include "machine/files/volume_format.h"

namespace machine {

// Where a path leads.
struct FilePlace {
    FileLink link;                     // of the last component; an empty name for the root itself
    std::vector<std::uint64_t> above;  // numbers of the directories on the way, the root first
    bool exists = false;
    FileId id;  // of what stands there, where `exists`
    DirectoryEntry entry;
};

// Success also when only the last component is missing. STATUS_OBJECT_PATH_NOT_FOUND when an earlier one is or
// is no directory, STATUS_OBJECT_NAME_INVALID for a malformed path, STATUS_ACCESS_DENIED for the file system's
// own files.
[[nodiscard]] NTSTATUS LocatePath(VolumeFormat& format, const std::u16string& path, FilePlace& place);
[[nodiscard]] NTSTATUS ListDirectory(VolumeFormat& format, const FileId& id,
                                     std::vector<DirectoryEntry>& entries);

}  // namespace machine
