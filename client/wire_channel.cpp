#include "client/wire_channel.h"
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>

namespace tool::wire {
namespace {

constexpr int kFarewellMilliseconds = 5000;

bool BreaksLayout() {
    errno = EPROTO;
    return false;
}

template <class Header>
bool ReceiveHeader(int socket, Header& header) {
    return posix::ReceiveAll(socket, &header, sizeof header) && (header.magic == kMagic || BreaksLayout());
}

}  // namespace

void Channel::Hang() {
    shutdown(socket_.Get(), SHUT_RDWR);
}

void Channel::Finish() {
    shutdown(socket_.Get(), SHUT_WR);
    pollfd wait{socket_.Get(), POLLIN, 0};
    while (poll(&wait, 1, kFarewellMilliseconds) < 0 && errno == EINTR) {
    }
}

bool Channel::Receive(Request& request) {
    RequestHeader header;
    if (!ReceiveHeader(socket_.Get(), header)) return false;
    if (header.inputLength > kMaximumLength || header.outputLength > kMaximumLength) return BreaksLayout();
    request.command = header.command;
    request.code = header.code;
    request.room = header.outputLength;
    request.input.resize(header.inputLength);
    return posix::ReceiveAll(socket_.Get(), request.input.data(), request.input.size());
}

bool Channel::Send(const Response& response) {
    const ResponseHeader header{kMagic, response.status, static_cast<std::uint32_t>(response.output.size()),
                                static_cast<std::uint32_t>(response.text.size())};
    return posix::SendAll(socket_.Get(), &header, sizeof header) &&
           posix::SendAll(socket_.Get(), response.output.data(), response.output.size()) &&
           posix::SendAll(socket_.Get(), response.text.data(), response.text.size());
}

bool Channel::Call(const Request& request, Response& response) {
    const RequestHeader header{kMagic, request.command, request.code,
                               static_cast<std::uint32_t>(request.input.size()), request.room};
    ResponseHeader answer;
    if (!posix::SendAll(socket_.Get(), &header, sizeof header) ||
        !posix::SendAll(socket_.Get(), request.input.data(), request.input.size()) ||
        !ReceiveHeader(socket_.Get(), answer))
        return false;
    if (answer.outputLength > request.room || answer.textLength > kMaximumLength) return BreaksLayout();
    response.status = answer.status;
    response.output.resize(answer.outputLength);
    response.text.resize(answer.textLength);
    return posix::ReceiveAll(socket_.Get(), response.output.data(), response.output.size()) &&
           posix::ReceiveAll(socket_.Get(), response.text.data(), response.text.size());
}

bool MakeAddress(const std::string& path, sockaddr_un& address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return true;
}

posix::File ConnectToServer(const std::string& folder) {
    sockaddr_un address;
    errno = ENAMETOOLONG;
    if (!MakeAddress(folder + "/" + kSocketName, address)) return posix::File();
    posix::File file(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const bool connected =
        file.IsOpen() && connect(file.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    return connected ? std::move(file) : posix::File();
}

}  // namespace tool::wire
