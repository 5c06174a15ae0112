// A volume in memory, formatted by mkntfs, that keeps every request and fails on demand; and the outside tools
// that say whether what the file system left on it is sound.
#pragma once
#include <gtest/gtest.h>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>
#include <unistd.h>
#include "machine/files/guest_files.h"
#include "machine/files/mounted_file_system.h"
#include "machine/ntfs/format.h"

namespace ntfs_test {

using Bytes = std::vector<std::uint8_t>;

inline std::string RunTool(const std::string& command, int& exitCode) {
    std::string output;
    FILE* pipe = popen(("PATH=$PATH:/usr/sbin:/sbin " + command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        exitCode = -1;
        return output;
    }
    char buffer[4096];
    for (std::size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, n);
    exitCode = pclose(pipe);
    return output;
}

class ScratchFile {
public:
    ScratchFile() {
        std::string name = (std::filesystem::temp_directory_path() / "kvr-ntfs-XXXXXX").string();
        const int file = mkstemp(name.data());
        EXPECT_GE(file, 0);
        close(file);
        path_ = name;
    }
    ~ScratchFile() { std::filesystem::remove(path_); }
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

// A fresh NTFS of `size` bytes; made once per kind and copied from then on.
inline const Bytes& FreshNtfs(std::uint64_t size, unsigned sector, unsigned cluster) {
    static std::mutex mutex;
    static std::map<std::string, Bytes> made;
    const std::lock_guard guard(mutex);
    const std::string options = "-s " + std::to_string(sector) + " -c " + std::to_string(cluster);
    Bytes& image = made[options + " " + std::to_string(size)];
    if (!image.empty()) return image;
    const ScratchFile file;
    std::filesystem::resize_file(file.Path(), size);
    int exitCode = 0;
    const std::string output =
        RunTool("mkntfs -q -F -Q -p 0 -H 255 -S 63 " + options + " " + file.Path(), exitCode);
    EXPECT_EQ(exitCode, 0) << output;
    image.resize(size);
    std::ifstream(file.Path(), std::ios::binary)
        .read(reinterpret_cast<char*>(image.data()), static_cast<std::streamsize>(size));
    return image;
}

struct Request {
    bool write;
    std::uint64_t offset;
    std::uint32_t length;
    std::u16string name;
    PFILE_OBJECT file;
};

class TestVolume : public machine::VolumeIo {
public:
    explicit TestVolume(Bytes image, std::uint32_t sector = 512) : bytes(std::move(image)), sector_(sector) {}

    std::uint32_t SectorSize() const override { return sector_; }
    std::uint64_t Size() const override { return bytes.size(); }
    NTSTATUS Read(std::uint64_t offset, void* buffer, std::uint32_t length, PFILE_OBJECT file) override {
        const NTSTATUS status = Arrive(false, offset, length, file);
        if (NT_SUCCESS(status)) std::memcpy(buffer, bytes.data() + offset, length);
        return status;
    }
    NTSTATUS Write(std::uint64_t offset, const void* buffer, std::uint32_t length, PFILE_OBJECT file) override {
        const NTSTATUS status = Arrive(true, offset, length, file);
        if (NT_SUCCESS(status)) std::memcpy(bytes.data() + offset, buffer, length);
        return status;
    }
    NTSTATUS Flush() override { return verdict && !NT_SUCCESS(verdict(true)) ? verdict(true) : STATUS_SUCCESS; }
    PDEVICE_OBJECT Device() const override { return nullptr; }
    PVPB Vpb() const override { return nullptr; }

    std::vector<Request> Writes(const std::u16string& name) const {
        std::vector<Request> found;
        for (const Request& request : requests)
            if (request.write && request.name == name) found.push_back(request);
        return found;
    }

    Bytes bytes;
    std::vector<Request> requests;
    std::function<NTSTATUS(bool write)> verdict;  // what becomes of the next request; unset: all succeed

private:
    NTSTATUS Arrive(bool write, std::uint64_t offset, std::uint32_t length, PFILE_OBJECT file) {
        const std::lock_guard guard(mutex_);
        EXPECT_TRUE(offset % sector_ == 0 && length % sector_ == 0 && length > 0);
        EXPECT_LE(offset + length, bytes.size());
        std::u16string name;
        if (file != nullptr) name.assign(file->FileName.Buffer, file->FileName.Length / sizeof(WCHAR));
        requests.push_back({write, offset, length, std::move(name), file});
        return verdict ? verdict(write) : STATUS_SUCCESS;
    }

    std::uint32_t sector_;
    std::mutex mutex_;
};

// Mounts for the length of a scope.
class Mounted {
public:
    explicit Mounted(TestVolume& volume) {
        status = machine::MountedFileSystem::Mount(machine::MakeNtfsFormat(volume), fileSystem);
        if (fileSystem != nullptr) files = std::make_unique<machine::GuestFiles>(*fileSystem);
    }
    NTSTATUS status;
    std::unique_ptr<machine::MountedFileSystem> fileSystem;
    std::unique_ptr<machine::GuestFiles> files;
};

// ntfsresize goes through all files and compares what they use with the bitmap.
inline std::string Inspect(const TestVolume& volume) {
    const ScratchFile file;
    std::ofstream(file.Path(), std::ios::binary)
        .write(reinterpret_cast<const char*>(volume.bytes.data()), static_cast<std::streamsize>(volume.Size()));
    int exitCode = 0;
    const std::string output = RunTool("ntfsresize -i -f " + file.Path(), exitCode);
    return exitCode == 0 ? std::string() : output;
}

inline ::testing::AssertionResult Sound(const TestVolume& volume) {
    const std::string complaint = Inspect(volume);
    return complaint.empty() ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << complaint;
}

// What may be left when the machine stopped in the middle: clusters that the bitmap calls used and nobody uses.
inline ::testing::AssertionResult SoundButForLostClusters(const TestVolume& volume) {
    const std::string complaint = Inspect(volume);
    if (complaint.empty()) return ::testing::AssertionSuccess();
    const bool lost = complaint.find("extra cluster in $Bitmap") != std::string::npos;
    const bool worse = complaint.find("missing cluster") != std::string::npos ||
                       complaint.find("multiple times") != std::string::npos;
    return lost && !worse ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << complaint;
}

inline Bytes ReadFromOutside(const TestVolume& volume, const std::string& path) {
    const ScratchFile file;
    std::ofstream(file.Path(), std::ios::binary)
        .write(reinterpret_cast<const char*>(volume.bytes.data()), static_cast<std::streamsize>(volume.Size()));
    int exitCode = 0;
    const std::string output = RunTool("ntfscat -f " + file.Path() + " " + path, exitCode);
    EXPECT_EQ(exitCode, 0) << output;
    return Bytes(output.begin(), output.end());
}

inline Bytes Pattern(std::size_t length, unsigned seed) {
    Bytes bytes(length);
    std::uint32_t state = seed * 2654435761u + 1;
    for (std::uint8_t& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<std::uint8_t>(state >> 24);
    }
    return bytes;
}

// How the driver opens its storage files to write them, and how it holds them.
inline host::FileOpen StorageOpen(const std::u16string& path) {
    return {path, 0x100002, FILE_SHARE_READ, FILE_OVERWRITE_IF, 0x2A, 0x86};
}
inline host::FileOpen HoldOpen(const std::u16string& path) {
    return {path, 0x100001, 0, FILE_OPEN, 0x2A, 0x86};
}

inline std::unique_ptr<host::OpenFile> OpenOrNull(machine::MountedFileSystem& fs, const host::FileOpen& request,
                                                  NTSTATUS* status = nullptr) {
    std::unique_ptr<host::OpenFile> file;
    ULONG_PTR information = 0;
    const NTSTATUS result = fs.Open(request, file, information);
    if (status != nullptr) *status = result;
    return file;
}

}  // namespace ntfs_test
