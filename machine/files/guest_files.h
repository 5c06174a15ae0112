// Files on a mounted volume as a program of the guest uses them: whole-file and positioned reads and writes by
// path, directories, renames. Every call opens the file with the share access that ordinary programs use and
// closes it again, so what the driver holds open is refused here as it is on the platform.
//
// Paths begin with a backslash and are relative to the volume's root.
#pragma once
#include <cstdint>
#include <span>
#include <string>
#include <vector>
#include "machine/files/guest_file_system.h"

namespace machine {

class GuestFiles {
public:
    explicit GuestFiles(GuestFileSystem& fileSystem) : fileSystem_(fileSystem) {}

    // Makes the file, or empties the one that is there, and writes `bytes`. A failure may leave a shorter file.
    [[nodiscard]] NTSTATUS WriteFile(const std::u16string& path, std::span<const std::uint8_t> bytes);
    [[nodiscard]] NTSTATUS ReadFile(const std::u16string& path, std::vector<std::uint8_t>& bytes);
    // Writes into a file, making it when it is missing and growing it where needed.
    [[nodiscard]] NTSTATUS WriteAt(const std::u16string& path, std::uint64_t offset,
                                   std::span<const std::uint8_t> bytes);
    // Reads up to `length` bytes; `bytes` is shorter where the file ends. STATUS_END_OF_FILE beyond the end.
    [[nodiscard]] NTSTATUS ReadAt(const std::u16string& path, std::uint64_t offset, std::size_t length,
                                  std::vector<std::uint8_t>& bytes);
    [[nodiscard]] NTSTATUS List(const std::u16string& directory, std::vector<DirectoryEntry>& entries) const;
    [[nodiscard]] NTSTATUS MakeDirectory(const std::u16string& path) const;
    [[nodiscard]] NTSTATUS Delete(const std::u16string& path) const;
    [[nodiscard]] NTSTATUS Rename(const std::u16string& from, const std::u16string& to) const;
    // Success with `exists` when the answer is known, else why it is not.
    [[nodiscard]] NTSTATUS Exists(const std::u16string& path, bool& exists) const;
    [[nodiscard]] NTSTATUS FreeSpace(std::uint64_t& bytes) const;

private:
    GuestFileSystem& fileSystem_;
};

}  // namespace machine
