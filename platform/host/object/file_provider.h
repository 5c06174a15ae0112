// What the host kernel asks of a mounted file system. ZwCreateFile, ZwReadFile, ZwWriteFile and ZwDeleteFile
// resolve a path to the provider mounted on a volume device and call it; handles and their lifetime are the
// kernel's, share access and everything below is the provider's.
#pragma once
#include <memory>
#include <string>
#include "platform/host/nt/ntzw.h"

namespace host {

struct FileOpen {
    std::u16string path;  // relative to the volume, begins with a backslash, links already resolved
    ACCESS_MASK access;
    ULONG share;        // FILE_SHARE_ bits granted to others
    ULONG disposition;  // FILE_OPEN, FILE_CREATE, FILE_OPEN_IF, FILE_OVERWRITE, FILE_OVERWRITE_IF
    ULONG options;
    ULONG attributes;  // given to a file that this open creates or overwrites
};

// One open of one file. Destroying it is the close, and gives back its share access.
class OpenFile {
public:
    virtual ~OpenFile() = default;
    // Reads up to `length` bytes at `offset`; `done` receives the bytes read. STATUS_END_OF_FILE when the
    // file ends at or before `offset`.
    [[nodiscard]] virtual NTSTATUS Read(LONGLONG offset, void* buffer, ULONG length, ULONG& done) = 0;
    // Writes `length` bytes at `offset`, growing the file where needed; the data and what the file system
    // needs to find it again are at the volume's stack when it returns (opens are write-through).
    [[nodiscard]] virtual NTSTATUS Write(LONGLONG offset, const void* buffer, ULONG length, ULONG& done) = 0;
    // FILE_ATTRIBUTE_ bits of the file as it is now.
    virtual ULONG Attributes() { return FILE_ATTRIBUTE_NORMAL; }
    // The file's bytes are stored as they are from now on.
    [[nodiscard]] virtual NTSTATUS Decompress() { return STATUS_SUCCESS; }
};

class FileProvider {
public:
    virtual ~FileProvider() = default;
    // `information` receives FILE_OPENED, FILE_CREATED or FILE_OVERWRITTEN.
    [[nodiscard]] virtual NTSTATUS Open(const FileOpen& request, std::unique_ptr<OpenFile>& file,
                                        ULONG_PTR& information) = 0;
    // Deletes the file; STATUS_SHARING_VIOLATION while an open denies it.
    [[nodiscard]] virtual NTSTATUS Delete(const std::u16string& path) = 0;
};

}  // namespace host
