// Files of the file systems that a story plays: where they are mounted, and which are open.
#pragma once
#include "tests/second_kernel/stage.h"

namespace shim {

// One open of such a file; in use as long as a reference is held.
struct StoryFile;

// Whose a path is.
enum class PathOwner { Story, Nobody, Kernel };
// For Story: `mount` is what OpenStoryFile wants, `rest` the path on the volume. For Kernel: `real` is the path
// to open instead, in `room`. Nobody: it lies on a device on which nothing is mounted.
struct ResolvedPath {
    const struct StoryMount* mount;
    UNICODE_STRING rest;
    UNICODE_STRING real;
    WCHAR room[260];
};
PathOwner ResolvePath(PCUNICODE_STRING path, ResolvedPath* resolved);

struct FileOpening {
    ACCESS_MASK access;
    ULONG share;
    ULONG disposition;
    ULONG options;
};
[[nodiscard]] NTSTATUS OpenStoryFile(const ResolvedPath& path, const FileOpening& opening, HANDLE* handle,
                                     ULONG_PTR* information);
[[nodiscard]] NTSTATUS DeleteStoryFile(const ResolvedPath& path);

// Null for a handle that is none of these. ReleaseStoryFile gives the reference back.
StoryFile* ReferenceStoryFile(HANDLE handle);
void ReleaseStoryFile(StoryFile* file);
// False for a handle that is none of these. What is under way in the file ends first.
bool CloseStoryFile(HANDLE handle);

[[nodiscard]] NTSTATUS ReadStoryFile(StoryFile* file, LONGLONG offset, PVOID buffer, ULONG length, ULONG* done);
[[nodiscard]] NTSTATUS WriteStoryFile(StoryFile* file, LONGLONG offset, const void* buffer, ULONG length,
                                      ULONG* done);

}  // namespace shim
