// One end of a control connection: whole messages over a Unix stream socket, as tool/control_wire.h has them.
#pragma once
#include <cstdint>
#include <string>
#include <vector>
#include "formats/control_wire.h"

namespace nbd {

struct WireRequest {
    tool::wire::Command command{};
    std::uint32_t code = 0;
    std::vector<std::uint8_t> input;
    std::uint32_t room = 0;  // bytes for output
};

struct WireResponse {
    std::int32_t status = 0;  // NTSTATUS
    std::vector<std::uint8_t> output;
    std::string text;
};

class WireChannel {
public:
    // Takes the socket over and closes it.
    explicit WireChannel(int socket) : socket_(socket) {}
    ~WireChannel();
    WireChannel(const WireChannel&) = delete;
    WireChannel& operator=(const WireChannel&) = delete;

    // False when the other end is gone or breaks the layout.
    bool Receive(WireRequest& request);
    bool Send(const WireResponse& response);
    bool Send(const WireRequest& request);
    bool Receive(WireResponse& response);
    // Lets a thread that waits for the other end go on: there is nothing more to come.
    void Hang();

private:
    bool SendAll(const void* bytes, std::size_t length);
    bool ReceiveAll(void* bytes, std::size_t length);

    int socket_;
};

// Connects to the server of a machine's folder; -1 with errno when none answers.
int ConnectToServer(const std::string& folder);

}  // namespace nbd
