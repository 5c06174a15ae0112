// Volumes in memory with a file system on them, made by the file systems' own tools, that keep every request
// and fail on demand; and those tools again, to say whether what was left on a volume is sound.
#pragma once
#include <gtest/gtest.h>
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>
#include "machine/ext/format.h"
#include "machine/files/guest_files.h"
#include "machine/files/mounted_file_system.h"
#include "machine/ntfs/format.h"
#include "machine/partition/subprocess.h"
#include "tests/support/scratch_folder.h"

namespace format_test {

using Bytes = std::vector<std::uint8_t>;

inline constexpr std::uint64_t kMiB = 1024 * 1024;

inline Bytes Pattern(std::size_t length, unsigned seed) {
    Bytes bytes(length);
    std::uint32_t state = seed * 2654435761u + 1;
    for (std::uint8_t& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<std::uint8_t>(state >> 24);
    }
    return bytes;
}

// ---- the file systems' own tools ---------------------------------------------------------------------------

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
    const std::vector<char> bytes = TestFolder::Bytes(path);
    return {bytes.begin(), bytes.end()};
}

using Arguments = std::vector<std::string>;

// Runs a tool on the volume's bytes, whose file is its last argument; they are as it left them.
inline machine::ToolResult RunOn(Bytes& bytes, const std::string& tool, Arguments arguments) {
    const TestFolder folder;
    arguments.push_back(folder.File("volume"));
    WriteImage(bytes, arguments.back());
    machine::ToolResult result = machine::RunTool(tool, arguments);
    EXPECT_TRUE(result.started) << tool;
    bytes = ReadImage(arguments.back());
    return result;
}

// What a request of ext's debugger says.
inline std::string Debugfs(Bytes& bytes, const std::string& request) {
    const machine::ToolResult result = RunOn(bytes, "debugfs", {"-w", "-R", request});
    EXPECT_EQ(result.exitCode, 0) << result.output;
    return result.output;
}

// ---- the kinds ---------------------------------------------------------------------------------------------

// A way of making a volume. `options` are mkntfs's or mke2fs's.
struct Format {
    machine::FormatMaker make;
    const char* options;
    std::uint32_t sector = 512;

    bool IsNtfs() const { return make == machine::MakeNtfsFormat; }

    // A fresh volume of `size` bytes; made once and copied from then on.
    const Bytes& Fresh(std::uint64_t size) const {
        static std::mutex mutex;
        static std::map<std::string, Bytes> made;
        const std::lock_guard guard(mutex);
        Bytes& image = made[(IsNtfs() ? "n" : "e") + std::string(options) + std::to_string(size)];
        if (!image.empty()) return image;
        image.resize(size);
        Arguments arguments{"-q", "-F"};
        if (IsNtfs()) arguments.insert(arguments.end(), {"-Q", "-p", "0", "-H", "255", "-S", "63"});
        std::istringstream words(options);
        for (std::string word; words >> word;) arguments.push_back(word);
        const machine::ToolResult result = RunOn(image, IsNtfs() ? "mkntfs" : "mke2fs", std::move(arguments));
        EXPECT_EQ(result.exitCode, 0) << result.output;
        return image;
    }

    // ntfsresize goes through all files and compares what they use with the bitmap, as e2fsck does.
    machine::ToolResult Check(Bytes& bytes) const {
        return IsNtfs() ? RunOn(bytes, "ntfsresize", {"-i", "-f"}) : RunOn(bytes, "e2fsck", {"-fn"});
    }
    ::testing::AssertionResult Sound(Bytes bytes) const {
        const machine::ToolResult result = Check(bytes);
        return result.exitCode == 0 ? ::testing::AssertionSuccess()
                                    : ::testing::AssertionFailure() << result.output;
    }
};

inline void PrintTo(const Format& format, std::ostream* out) {
    *out << format.options << ", sectors of " << format.sector;
}

inline const Format kNtfs{machine::MakeNtfsFormat, "-s 512 -c 4096"};
inline const Format kExt4{machine::MakeExtFormat, "-t ext4"};

// ---- volumes -----------------------------------------------------------------------------------------------

struct Request {
    bool write;
    std::uint64_t offset;
    std::uint32_t length;
    std::u16string name;
    PFILE_OBJECT file;
    Bytes data;  // of a write
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
        const NTSTATUS status = Arrive(true, offset, length, file, buffer);
        if (NT_SUCCESS(status)) std::memcpy(bytes.data() + offset, buffer, length);
        return status;
    }
    NTSTATUS Flush() override { return verdict ? verdict(true) : STATUS_SUCCESS; }
    // A disk that forgets at once, so that a range still in use shows.
    void Trim(std::uint64_t offset, std::uint64_t length) override {
        ASSERT_LE(offset + length, bytes.size());
        std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), length, std::uint8_t{0});
        trimmed += length;
    }
    PDEVICE_OBJECT Device() const override { return nullptr; }
    PVPB Vpb() const override { return nullptr; }

    // With the file object of `name`, or all.
    std::vector<Request> Writes(const std::u16string& name = {}) const {
        std::vector<Request> found;
        for (const Request& request : requests)
            if (request.write && (name.empty() || request.name == name)) found.push_back(request);
        return found;
    }

    Bytes bytes;
    std::vector<Request> requests;
    std::uint64_t trimmed = 0;                    // bytes
    std::function<NTSTATUS(bool write)> verdict;  // what becomes of the next request; unset: all succeed

private:
    NTSTATUS Arrive(bool write, std::uint64_t offset, std::uint32_t length, PFILE_OBJECT file,
                    const void* data = nullptr) {
        const std::lock_guard guard(mutex_);
        EXPECT_TRUE(offset % sector_ == 0 && length % sector_ == 0 && length > 0);
        EXPECT_LE(offset + length, bytes.size());
        std::u16string name;
        if (file != nullptr) name.assign(file->FileName.Buffer, file->FileName.Length / sizeof(WCHAR));
        const auto* from = static_cast<const std::uint8_t*>(data);
        requests.push_back(
            {write, offset, length, std::move(name), file, Bytes(from, from + (write ? length : 0))});
        return verdict ? verdict(write) : STATUS_SUCCESS;
    }

    std::uint32_t sector_;
    std::mutex mutex_;
};

inline std::uint64_t Covered(const std::vector<Request>& requests) {
    std::uint64_t sum = 0;
    for (const Request& request : requests) sum += request.length;
    return sum;
}

// Mounts for the length of a scope.
class Mounted {
public:
    Mounted(const Format& format, machine::VolumeIo& volume) {
        status = machine::MountedFileSystem::Mount(format.make(volume), fileSystem);
        if (fileSystem != nullptr) files = std::make_unique<machine::GuestFiles>(*fileSystem);
    }
    // Null unless that is what is expected to be there.
    std::unique_ptr<host::OpenFile> Open(const host::FileOpen& request,
                                         NTSTATUS expected = STATUS_SUCCESS) const {
        std::unique_ptr<host::OpenFile> file;
        ULONG_PTR information = 0;
        EXPECT_EQ(fileSystem->Open(request, file, information), expected);
        return file;
    }
    NTSTATUS status;
    std::unique_ptr<machine::MountedFileSystem> fileSystem;
    std::unique_ptr<machine::GuestFiles> files;
};

// How the driver opens its storage files to write them, and how it holds them.
inline host::FileOpen StorageOpen(const std::u16string& path) {
    return {path, 0x100002, FILE_SHARE_READ, FILE_OVERWRITE_IF, 0x2A, 0x86};
}
inline host::FileOpen HoldOpen(const std::u16string& path) {
    return {path, 0x100001, 0, FILE_OPEN, 0x2A, 0x86};
}

}  // namespace format_test
