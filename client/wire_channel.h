// One end of a control connection: whole messages over a Unix stream socket, as formats/control_wire.h has
// them.
#pragma once
#include <cstdint>
#include <string>
#include <vector>
#include <sys/un.h>
#include "formats/control_wire.h"
#include "posix/file_io.h"

namespace tool::wire {

struct Request {
    Command command{};
    std::uint32_t code = 0;
    std::vector<std::uint8_t> input;
    std::uint32_t room = 0;  // bytes for output
};

struct Response {
    std::int32_t status = 0;  // NTSTATUS
    std::vector<std::uint8_t> output;
    std::string text;
};

class Channel {
public:
    // `socket`: connected.
    explicit Channel(posix::File socket) : socket_(std::move(socket)) {}

    // Each: false with errno when the other end is gone (0 when it has closed) or breaks the layout (EPROTO).
    // The server's part.
    [[nodiscard]] bool Receive(Request& request);
    [[nodiscard]] bool Send(const Response& response);
    // The client's: a request and the response to it, whose output is no larger than there is room.
    [[nodiscard]] bool Call(const Request& request, Response& response);

    // Lets a thread that waits for the other end go on: there is nothing more to come.
    void Hang();
    // A client's farewell: returns when the server has closed what this connection opened, so that the next
    // one finds it closed. A server that does not answer is given up after five seconds.
    void Finish();

private:
    posix::File socket_;
};

// False when the path is too long for a socket.
[[nodiscard]] bool MakeAddress(const std::string& path, sockaddr_un& address);
// Connects to the server of a machine's folder; none, with errno, when none answers (ENAMETOOLONG: the path).
posix::File ConnectToServer(const std::string& folder);

}  // namespace tool::wire
