// The client's end of a hosted machine's control socket: requests and responses as tool/control_wire.h has
// them.
#pragma once
#include <cstdint>
#include <span>
#include <string>
#include "formats/control_wire.h"
#include "tool/kvrctl/world.h"

namespace ctl {

class WireConnection {
public:
    // Connects to the socket in `folder`. Throws Failure: kExitNotRunning where nobody answers, kExitDenied.
    explicit WireConnection(const std::string& folder);
    ~WireConnection();
    WireConnection(const WireConnection&) = delete;
    WireConnection& operator=(const WireConnection&) = delete;

    // One request and its response. `output` has the size of the answer's room and is cut to what came. Throws
    // Failure when the connection breaks or the response breaks the layout.
    Answer Call(tool::wire::Command command, std::uint32_t code, std::span<const std::uint8_t> input,
                Bytes& output);

private:
    void Send(const void* bytes, std::size_t length);
    void Receive(void* bytes, std::size_t length);
    [[noreturn]] void Lost() const;

    std::string folder_;
    int socket_ = -1;
};

}  // namespace ctl
