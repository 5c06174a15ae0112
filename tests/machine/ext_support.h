// A volume in memory with an ext file system on it, and the file system's own tools to judge it by.
#pragma once
#include <algorithm>
#include "machine/ext/format.h"
#include "ntfs_support.h"

namespace ext_test {

using ntfs_test::Bytes;
using ntfs_test::HoldOpen;
using ntfs_test::Pattern;
using ntfs_test::Request;
using ntfs_test::RunTool;
using ntfs_test::ScratchFile;
using ntfs_test::StorageOpen;
using ntfs_test::TestVolume;

inline constexpr std::uint64_t kMiB = 1024 * 1024;

// Leaves holes for zeros.
inline void WriteImage(const Bytes& bytes, const std::string& path) {
    static const Bytes zeros(65536);
    std::ofstream file(path, std::ios::binary);
    for (std::size_t at = 0; at < bytes.size(); at += zeros.size()) {
        const std::size_t part = std::min(zeros.size(), bytes.size() - at);
        if (std::memcmp(&bytes[at], zeros.data(), part) == 0) continue;
        file.seekp(static_cast<std::streamoff>(at));
        file.write(reinterpret_cast<const char*>(&bytes[at]), static_cast<std::streamsize>(part));
    }
    file.close();
    std::filesystem::resize_file(path, bytes.size());
}

inline Bytes ReadImage(const std::string& path) {
    Bytes bytes(std::filesystem::file_size(path));
    std::ifstream(path, std::ios::binary)
        .read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

// A fresh file system of `size` bytes; made once per kind and copied from then on. `options` are mke2fs's.
inline const Bytes& FreshExt(std::uint64_t size, const std::string& options) {
    static std::map<std::string, Bytes> made;
    Bytes& image = made[options + " " + std::to_string(size)];
    if (!image.empty()) return image;
    const ScratchFile file;
    std::filesystem::resize_file(file.Path(), size);
    int exitCode = 0;
    const std::string output = RunTool("mke2fs -q -F " + options + " " + file.Path(), exitCode);
    EXPECT_EQ(exitCode, 0) << output;
    return image = ReadImage(file.Path());
}

// Runs a tool on the volume's bytes, in the place of "IMAGE" in the command.
inline std::string RunOn(const Bytes& bytes, std::string command, int& exitCode) {
    const ScratchFile file;
    WriteImage(bytes, file.Path());
    return RunTool(command.replace(command.find("IMAGE"), 5, file.Path()), exitCode);
}

// The same, and `bytes` are as the tool left them.
inline std::string ChangeBy(Bytes& bytes, std::string command, int& exitCode) {
    const ScratchFile file;
    WriteImage(bytes, file.Path());
    const std::string output = RunTool(command.replace(command.find("IMAGE"), 5, file.Path()), exitCode);
    bytes = ReadImage(file.Path());
    return output;
}

// What a request of the debugger shows, without the line of its version.
inline std::string Debugfs(const Bytes& bytes, const std::string& request) {
    int exitCode = 0;
    const std::string output = RunOn(bytes, "debugfs -R '" + request + "' IMAGE", exitCode);
    EXPECT_EQ(exitCode, 0) << output;
    return output.substr(output.find('\n') + 1);
}

inline ::testing::AssertionResult Sound(const Bytes& bytes) {
    int exitCode = 0;
    const std::string output = RunOn(bytes, "e2fsck -fn IMAGE", exitCode);
    return exitCode == 0 ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << output;
}

// Mounts for the length of a scope.
class Mounted {
public:
    explicit Mounted(machine::VolumeIo& volume) {
        status = machine::MountedFileSystem::Mount(machine::MakeExtFormat(volume), fileSystem);
        if (fileSystem != nullptr) files = std::make_unique<machine::GuestFiles>(*fileSystem);
    }
    std::unique_ptr<host::OpenFile> Open(const host::FileOpen& request, NTSTATUS expected = STATUS_SUCCESS) {
        std::unique_ptr<host::OpenFile> file;
        ULONG_PTR information = 0;
        EXPECT_EQ(fileSystem->Open(request, file, information), expected);
        return file;
    }
    NTSTATUS status;
    std::unique_ptr<machine::MountedFileSystem> fileSystem;
    std::unique_ptr<machine::GuestFiles> files;
};

}  // namespace ext_test
