#include "tool/kvrctl/wire_connection.h"
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include "tool/kvrctl/failure.h"

namespace ctl {
namespace {

using tool::wire::RequestHeader;
using tool::wire::ResponseHeader;

// The whole path must fit a socket's address.
sockaddr_un AddressOf(const std::string& folder) {
    const std::string path = folder + "/" + tool::wire::kSocketName;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw Failure("the path '" + path + "' is too long for a socket; use a shorter or relative one",
                      kExitUsage);
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return address;
}

[[noreturn]] void NoConnection(const std::string& folder, int error) {
    if (error == EACCES || error == EPERM)
        throw Failure("the machine '" + folder + "' belongs to another user", kExitDenied);
    if (access(folder.c_str(), F_OK) != 0)
        throw Failure("there is no machine '" + folder + "'", kExitNotRunning);
    throw Failure("the machine '" + folder + "' is not running (kvrhost serve " + folder + ")",
                  kExitNotRunning);
}

}  // namespace

WireConnection::WireConnection(const std::string& folder) : folder_(folder) {
    const sockaddr_un address = AddressOf(folder);
    socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (socket_ < 0) throw Failure(std::string("no socket can be made: ") + std::strerror(errno));
    if (connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return;
    const int error = errno;
    close(socket_);
    NoConnection(folder, error);
}

WireConnection::~WireConnection() {
    close(socket_);
}

Answer WireConnection::Call(tool::wire::Command command, std::uint32_t code,
                            std::span<const std::uint8_t> input, Bytes& output) {
    const RequestHeader request{tool::wire::kMagic, command, code, static_cast<std::uint32_t>(input.size()),
                                static_cast<std::uint32_t>(output.size())};
    Bytes message(sizeof request);
    std::memcpy(message.data(), &request, sizeof request);
    message.insert(message.end(), input.begin(), input.end());
    Send(message.data(), message.size());
    ResponseHeader response{};
    Receive(&response, sizeof response);
    if (response.magic != tool::wire::kMagic || response.outputLength > output.size() ||
        response.textLength > tool::wire::kMaximumLength)
        throw Failure("the machine '" + folder_ + "' answers with something else than it should");
    output.resize(response.outputLength);
    Receive(output.data(), output.size());
    std::string text(response.textLength, '\0');
    Receive(text.data(), text.size());
    return {response.status, text};
}

void WireConnection::Send(const void* bytes, std::size_t length) {
    const auto* from = static_cast<const char*>(bytes);
    while (length != 0) {
        const ssize_t done = send(socket_, from, length, MSG_NOSIGNAL);
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) Lost();
        from += done, length -= static_cast<std::size_t>(done);
    }
}

void WireConnection::Receive(void* bytes, std::size_t length) {
    auto* to = static_cast<char*>(bytes);
    while (length != 0) {
        const ssize_t done = recv(socket_, to, length, 0);
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) Lost();
        to += done, length -= static_cast<std::size_t>(done);
    }
}

void WireConnection::Lost() const {
    throw Failure("the machine '" + folder_ + "' ended the connection; it was stopped or is booting anew",
                  kExitNotRunning);
}

}  // namespace ctl
