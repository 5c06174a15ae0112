#include "nbd/wire_channel.h"
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace nbd {

using namespace tool::wire;

WireChannel::~WireChannel() {
    close(socket_);
}

void WireChannel::Hang() {
    shutdown(socket_, SHUT_RDWR);
}

bool WireChannel::SendAll(const void* bytes, std::size_t length) {
    const auto* from = static_cast<const char*>(bytes);
    while (length != 0) {
        const ssize_t done = send(socket_, from, length, MSG_NOSIGNAL);
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return false;
        from += done, length -= static_cast<std::size_t>(done);
    }
    return true;
}

bool WireChannel::ReceiveAll(void* bytes, std::size_t length) {
    auto* to = static_cast<char*>(bytes);
    while (length != 0) {
        const ssize_t done = recv(socket_, to, length, 0);
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return false;
        to += done, length -= static_cast<std::size_t>(done);
    }
    return true;
}

bool WireChannel::Receive(WireRequest& request) {
    RequestHeader header;
    if (!ReceiveAll(&header, sizeof header)) return false;
    if (header.magic != kMagic || header.inputLength > kMaximumLength || header.outputLength > kMaximumLength)
        return false;
    request.command = header.command;
    request.code = header.code;
    request.room = header.outputLength;
    request.input.resize(header.inputLength);
    return ReceiveAll(request.input.data(), request.input.size());
}

bool WireChannel::Send(const WireResponse& response) {
    const ResponseHeader header{kMagic, response.status, static_cast<std::uint32_t>(response.output.size()),
                                static_cast<std::uint32_t>(response.text.size())};
    return SendAll(&header, sizeof header) && SendAll(response.output.data(), response.output.size()) &&
           SendAll(response.text.data(), response.text.size());
}

bool WireChannel::Send(const WireRequest& request) {
    const RequestHeader header{kMagic, request.command, request.code,
                               static_cast<std::uint32_t>(request.input.size()), request.room};
    return SendAll(&header, sizeof header) && SendAll(request.input.data(), request.input.size());
}

bool WireChannel::Receive(WireResponse& response) {
    ResponseHeader header;
    if (!ReceiveAll(&header, sizeof header)) return false;
    if (header.magic != kMagic || header.outputLength > kMaximumLength || header.textLength > kMaximumLength)
        return false;
    response.status = header.status;
    response.output.resize(header.outputLength);
    response.text.resize(header.textLength);
    return ReceiveAll(response.output.data(), response.output.size()) &&
           ReceiveAll(response.text.data(), response.text.size());
}

int ConnectToServer(const std::string& folder) {
    const std::string path = folder + "/" + kSocketName;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size());
    const int file = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (file < 0 || connect(file, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return file;
    const int error = errno;
    close(file);
    errno = error;
    return -1;
}

}  // namespace nbd
