// The control socket of a served machine: a thread per connection speaks tool/control_wire.h with a tool.
#pragma once
#include <functional>
#include <list>
#include <mutex>
#include <thread>
#include "nbd/server.h"
#include "nbd/wire_channel.h"

namespace nbd {

class ControlServer {
public:
    // Listens from now on, at a socket that only the owner may use; what a server that died left there is
    // replaced. `stop` is called when a tool has asked for the server's end and the machine is off. Throws
    // Error.
    ControlServer(Server& server, std::function<void()> stop);
    // Ends the connections and removes the socket. Not by a thread of this object.
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

private:
    struct Connection {
        explicit Connection(int socket) : channel(socket) {}
        WireChannel channel;
        Server::Handle handle = 0;
        bool ended = false;  // guarded by lock_
        std::thread thread;
    };
    static constexpr std::size_t kMostConnections = 32;

    void Accept();
    void Begin(int socket);
    void Serve(Connection& connection);
    void JoinEnded();
    WireResponse Answer(Connection& connection, WireRequest& request);
    WireResponse AnswerOpen(Connection& connection, const WireRequest& request);
    WireResponse AnswerControl(const Connection& connection, WireRequest& request);
    WireResponse AnswerFacts(const WireRequest& request);
    WireResponse AnswerSectors(const WireRequest& request);
    WireResponse AnswerRegistry(const WireRequest& request);
    WireResponse AnswerReboot();
    WireResponse AnswerStop();

    Server& server_;
    const std::function<void()> stop_;
    const std::string path_;
    int listener_ = -1;
    int wake_[2] = {-1, -1};  // a pipe; what comes out of it ends Accept()
    std::mutex lock_;
    std::list<Connection> connections_;  // guarded by lock_
    std::thread accepter_;
};

}  // namespace nbd
