#include "machine/files/guest_files.h"
#include <algorithm>

namespace machine {
namespace {

// What programs write and read at a time; also what a file grows by.
constexpr std::size_t kPiece = 1 << 20;

constexpr ACCESS_MASK kReading = SYNCHRONIZE | FILE_READ_DATA;
constexpr ACCESS_MASK kWriting = SYNCHRONIZE | FILE_WRITE_DATA;
constexpr ULONG kReaderShares = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

NTSTATUS WriteAll(host::OpenFile& file, std::uint64_t offset, std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const auto part = static_cast<ULONG>(std::min(bytes.size(), kPiece));
        ULONG done = 0;
        const NTSTATUS status = file.Write(static_cast<LONGLONG>(offset), bytes.data(), part, done);
        if (!NT_SUCCESS(status)) return status;
        offset += part;
        bytes = bytes.subspan(part);
    }
    return STATUS_SUCCESS;
}

// Reads up to `length` bytes or to the end of the file.
NTSTATUS ReadUpTo(host::OpenFile& file, std::uint64_t offset, std::size_t length,
                  std::vector<std::uint8_t>& bytes) {
    bytes.clear();
    while (bytes.size() < length) {
        const std::size_t had = bytes.size();
        const auto part = static_cast<ULONG>(std::min(length - had, kPiece));
        bytes.resize(had + part);
        ULONG done = 0;
        const auto at = static_cast<LONGLONG>(offset) + static_cast<LONGLONG>(had);
        const NTSTATUS status = file.Read(at, bytes.data() + had, part, done);
        bytes.resize(had + done);
        if (status == STATUS_END_OF_FILE) return had > 0 ? STATUS_SUCCESS : status;
        if (!NT_SUCCESS(status)) return status;
        if (done < part) break;
    }
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS GuestFiles::WriteFile(const std::u16string& path, std::span<const std::uint8_t> bytes) {
    std::unique_ptr<host::OpenFile> file;
    ULONG_PTR information = 0;
    const host::FileOpen request{path, kWriting, FILE_SHARE_READ, FILE_OVERWRITE_IF, 0, FILE_ATTRIBUTE_NORMAL};
    const NTSTATUS status = fileSystem_.Open(request, file, information);
    return NT_SUCCESS(status) ? WriteAll(*file, 0, bytes) : status;
}

NTSTATUS GuestFiles::ReadFile(const std::u16string& path, std::vector<std::uint8_t>& bytes) {
    const NTSTATUS status = ReadAt(path, 0, SIZE_MAX, bytes);
    return status == STATUS_END_OF_FILE ? STATUS_SUCCESS : status;  // an empty file
}

NTSTATUS GuestFiles::WriteAt(const std::u16string& path, std::uint64_t offset,
                             std::span<const std::uint8_t> bytes) {
    std::unique_ptr<host::OpenFile> file;
    ULONG_PTR information = 0;
    const host::FileOpen request{path, kWriting, FILE_SHARE_READ, FILE_OPEN_IF, 0, FILE_ATTRIBUTE_NORMAL};
    const NTSTATUS status = fileSystem_.Open(request, file, information);
    return NT_SUCCESS(status) ? WriteAll(*file, offset, bytes) : status;
}

NTSTATUS GuestFiles::ReadAt(const std::u16string& path, std::uint64_t offset, std::size_t length,
                            std::vector<std::uint8_t>& bytes) {
    std::unique_ptr<host::OpenFile> file;
    ULONG_PTR information = 0;
    const host::FileOpen request{path, kReading, kReaderShares, FILE_OPEN, 0, 0};
    const NTSTATUS status = fileSystem_.Open(request, file, information);
    return NT_SUCCESS(status) ? ReadUpTo(*file, offset, length, bytes) : status;
}

NTSTATUS GuestFiles::List(const std::u16string& directory, std::vector<DirectoryEntry>& entries) const {
    return fileSystem_.List(directory, entries);
}

NTSTATUS GuestFiles::MakeDirectory(const std::u16string& path) const {
    return fileSystem_.MakeDirectory(path);
}

NTSTATUS GuestFiles::Delete(const std::u16string& path) const {
    return fileSystem_.Delete(path);
}

NTSTATUS GuestFiles::Rename(const std::u16string& from, const std::u16string& to) const {
    return fileSystem_.Rename(from, to);
}

NTSTATUS GuestFiles::Exists(const std::u16string& path, bool& exists) const {
    DirectoryEntry entry;
    const NTSTATUS status = fileSystem_.Query(path, entry);
    exists = NT_SUCCESS(status);
    const bool missing = status == STATUS_OBJECT_NAME_NOT_FOUND || status == STATUS_OBJECT_PATH_NOT_FOUND;
    return missing ? STATUS_SUCCESS : status;
}

NTSTATUS GuestFiles::FreeSpace(std::uint64_t& bytes) const {
    return fileSystem_.FreeSpace(bytes);
}

}  // namespace machine
