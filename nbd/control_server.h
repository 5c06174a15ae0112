// The control socket of a served machine: a thread per connection speaks formats/control_wire.h with a tool.
#pragma once
#include <functional>
#include <list>
#include <mutex>
#include <thread>
#include "nbd/server.h"
#include "client/wire_channel.h"

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
        explicit Connection(posix::File socket) : channel(std::move(socket)) {}
        tool::wire::Channel channel;
        Server::Handle handle = 0;
        bool ended = false;  // guarded by lock_
        std::thread thread;
    };
    static constexpr std::size_t kMostConnections = 32;

    void Accept();
    posix::File Take();
    void Begin(posix::File socket);
    void Converse(Connection& connection);
    void Serve(Connection& connection);
    void JoinEnded();
    tool::wire::Response Answer(Connection& connection, tool::wire::Request& request);
    tool::wire::Response AnswerOpen(Connection& connection, const tool::wire::Request& request);
    tool::wire::Response AnswerControl(const Connection& connection, tool::wire::Request& request);
    tool::wire::Response AnswerFacts(const tool::wire::Request& request);
    tool::wire::Response AnswerVolumes();
    tool::wire::Response AnswerSectors(const tool::wire::Request& request, bool present);
    tool::wire::Response AnswerRuns(const tool::wire::Request& request);
    tool::wire::Response AnswerRegistry(const tool::wire::Request& request);
    tool::wire::Response AnswerSwitch(const tool::wire::Request& request);
    tool::wire::Response AnswerReboot();
    tool::wire::Response AnswerStop();

    Server& server_;
    const std::function<void()> stop_;
    const std::string path_;
    posix::File listener_;
    posix::File spare_;  // gives its descriptor up where the host has no other
    posix::File ends_;   // an eventfd: not 0 ends Accept()
    std::mutex lock_;
    std::list<Connection> connections_;  // guarded by lock_
    std::thread accepter_;
};

}  // namespace nbd
