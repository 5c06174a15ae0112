// An open file of the host, closed with its owner, and whole reads and writes on it.
#pragma once
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <unistd.h>

namespace tool {

class FileHandle {
public:
    explicit FileHandle(int file) : file_(file) {}
    ~FileHandle() {
        if (file_ >= 0) close(file_);
    }
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;
    int Get() const { return file_; }
    bool IsOpen() const { return file_ >= 0; }

private:
    int file_;
};

// False with errno set; 0 when the file ends before `length` bytes.
inline bool ReadWhole(int file, void* buffer, std::size_t length, std::uint64_t offset) {
    auto* to = static_cast<char*>(buffer);
    while (length != 0) {
        const ssize_t done = pread(file, to, length, static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR) continue;
        if (done == 0) errno = 0;
        if (done <= 0) return false;
        to += done, offset += static_cast<std::uint64_t>(done), length -= static_cast<std::size_t>(done);
    }
    return true;
}

inline bool WriteWhole(int file, const void* buffer, std::size_t length, std::uint64_t offset) {
    const auto* from = static_cast<const char*>(buffer);
    while (length != 0) {
        const ssize_t done = pwrite(file, from, length, static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return false;
        from += done, offset += static_cast<std::uint64_t>(done), length -= static_cast<std::size_t>(done);
    }
    return true;
}

}  // namespace tool
