// Files of the host: their owner, and transfers that are whole or have failed. A call that a signal interrupts
// is made again.
#pragma once
#include <cstddef>
#include <cstdint>
#include <utility>

namespace posix {

// An open descriptor, closed with its owner; a negative one stands for none.
class File {
public:
    explicit File(int descriptor = -1) : descriptor_(descriptor) {}
    File(File&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    File& operator=(File&& other) noexcept {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
    ~File();

    bool IsOpen() const { return descriptor_ >= 0; }
    int Get() const { return descriptor_; }

private:
    int descriptor_;
};

// `length` bytes at `offset`. False with errno; reading, errno is 0 when the file ends before.
[[nodiscard]] bool ReadAt(int file, void* buffer, std::size_t length, std::uint64_t offset);
[[nodiscard]] bool WriteAt(int file, const void* buffer, std::size_t length, std::uint64_t offset);

// `length` bytes of a connected stream socket. False with errno; 0 when the other end has closed. No signal is
// raised for that.
[[nodiscard]] bool ReceiveAll(int socket, void* buffer, std::size_t length);
[[nodiscard]] bool SendAll(int socket, const void* buffer, std::size_t length);

}  // namespace posix
