#include "posix/file_io.h"
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

namespace posix {
namespace {

// Calls `part` (bytes done, bytes wanted) -> ssize_t until all is done.
template <class Part>
bool Whole(std::size_t length, const Part& part) {
    for (std::size_t done = 0; done < length;) {
        const ssize_t now = part(done, length - done);
        if (now < 0 && errno == EINTR) continue;
        if (now == 0) errno = 0;
        if (now <= 0) return false;
        done += static_cast<std::size_t>(now);
    }
    return true;
}

}  // namespace

File::~File() {
    if (IsOpen()) close(descriptor_);
}

bool ReadAt(int file, void* buffer, std::size_t length, std::uint64_t offset) {
    return Whole(length, [&](std::size_t done, std::size_t left) {
        return pread(file, static_cast<char*>(buffer) + done, left, static_cast<off_t>(offset + done));
    });
}

bool WriteAt(int file, const void* buffer, std::size_t length, std::uint64_t offset) {
    return Whole(length, [&](std::size_t done, std::size_t left) {
        return pwrite(file, static_cast<const char*>(buffer) + done, left, static_cast<off_t>(offset + done));
    });
}

bool ReceiveAll(int socket, void* buffer, std::size_t length) {
    return Whole(length, [&](std::size_t done, std::size_t left) {
        return recv(socket, static_cast<char*>(buffer) + done, left, 0);
    });
}

bool SendAll(int socket, const void* buffer, std::size_t length) {
    return Whole(length, [&](std::size_t done, std::size_t left) {
        return send(socket, static_cast<const char*>(buffer) + done, left, MSG_NOSIGNAL);
    });
}

}  // namespace posix
