#include "nbd/control_server.h"
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include "platform/host/check/host_memory.h"

namespace nbd {
namespace {

using namespace tool::wire;

constexpr int kPause = 50;  // milliseconds until the host is asked again

posix::File Listen(const std::string& path) {
    sockaddr_un address;
    if (!MakeAddress(path, address))
        throw Error(path + " is too long a path for a socket; serve the machine from a shorter one");
    unlink(path.c_str());
    posix::File file(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const mode_t before = umask(0177);
    const bool bound =
        file.IsOpen() && bind(file.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const int error = errno;
    umask(before);
    if (!bound || listen(file.Get(), 16) != 0)
        throw Error("cannot listen at " + path + ": " + std::strerror(error));
    return file;
}

std::u16string NameOf(const VolumeName& name) {
    std::u16string text(name.text, std::size(name.text));
    return text.substr(0, text.find(u'\0'));
}

posix::File OpenSpare() {
    return posix::File(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

Response Failed(NTSTATUS status, std::string text = {}) {
    return {status, {}, std::move(text)};
}

template <class Record>
bool TakeRecord(const Request& request, Record& record) {
    if (request.input.size() != sizeof record) return false;
    std::memcpy(&record, request.input.data(), sizeof record);
    return true;
}

std::u16string TextOf(const Request& request) {
    std::u16string text(request.input.size() / sizeof(char16_t), u'\0');
    // An empty input has no data that may be named, not even to copy nothing of it.
    if (!text.empty()) std::memcpy(text.data(), request.input.data(), text.size() * sizeof(char16_t));
    return text;
}

}  // namespace

ControlServer::ControlServer(Server& server, std::function<void()> stop)
    : server_(server), stop_(std::move(stop)), path_(server.Folder().File(kSocketName)) {
    listener_ = Listen(path_);
    spare_ = OpenSpare();
    ends_ = posix::File(eventfd(0, EFD_CLOEXEC));
    if (!ends_.IsOpen()) throw Error(std::string("cannot make an event: ") + std::strerror(errno));
    if (host::WithinMemory(false, [this] {
            accepter_ = std::thread([this] { Accept(); });
            return true;
        }))
        return;
    unlink(path_.c_str());
    throw Error("the host has no thread for the control socket");
}

ControlServer::~ControlServer() {
    eventfd_write(ends_.Get(), 1);
    accepter_.join();
    {
        const std::lock_guard hold(lock_);
        for (Connection& connection : connections_) connection.channel.Hang();
    }
    for (Connection& connection : connections_) connection.thread.join();
    unlink(path_.c_str());
}

void ControlServer::Accept() {
    pollfd waits[2] = {{listener_.Get(), POLLIN, 0}, {ends_.Get(), POLLIN, 0}};
    for (;;) {
        const bool told = poll(waits, 2, -1) >= 0;
        if (told && waits[1].revents != 0) return;
        posix::File socket = told ? Take() : posix::File();
        JoinEnded();
        if (socket.IsOpen())
            Begin(std::move(socket));
        else
            poll(&waits[1], 1, kPause);
    }
}

// None where the host has no descriptor for it: the client is then told so by its connection's end, for which
// the spare one is there.
posix::File ControlServer::Take() {
    const auto accept = [this] {
        return posix::File(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    };
    if (!spare_.IsOpen()) spare_ = OpenSpare();
    if (posix::File socket = accept(); socket.IsOpen()) return socket;
    if (errno != EMFILE && errno != ENFILE) return posix::File();
    // nbdkit's own loop may take what is given up here; the client then waits, and the spare is found anew
    // later.
    spare_ = posix::File();
    if (accept().IsOpen()) server_.Log().Line("control: no descriptor for another connection");
    spare_ = OpenSpare();
    return posix::File();
}

// A client for whom there is no thread or memory sees its connection closed.
void ControlServer::Begin(posix::File socket) {
    const std::lock_guard hold(lock_);
    if (connections_.size() >= kMostConnections) {
        server_.Log().Line("control: too many connections at once");
        return;
    }
    const std::size_t before = connections_.size();
    const bool begun = host::WithinMemory(false, [&] {
        Connection& connection = connections_.emplace_back(std::move(socket));
        connection.thread = std::thread([this, &connection] { Serve(connection); });
        return true;
    });
    if (begun) return;
    if (connections_.size() > before) connections_.pop_back();
    server_.Log().Line("control: no thread or memory for another connection");
}

void ControlServer::JoinEnded() {
    const std::lock_guard hold(lock_);
    connections_.remove_if([](Connection& connection) {
        if (!connection.ended) return false;
        connection.thread.join();
        return true;
    });
}

void ControlServer::Converse(Connection& connection) {
    Request request;
    while (connection.channel.Receive(request)) {
        Response response = Answer(connection, request);
        if (response.output.size() > request.room) response = Failed(STATUS_BUFFER_TOO_SMALL);
        if (!connection.channel.Send(response)) break;
        if (request.command == Command::Stop && NT_SUCCESS(response.status)) stop_();
    }
}

// A request for which there is no memory ends its connection, and nothing else.
void ControlServer::Serve(Connection& connection) {
    try {
        Converse(connection);
    } catch (const std::bad_alloc&) {
        server_.NoMemory("control");
    }
    if (connection.handle != 0) server_.CloseControl(connection.handle);
    connection.channel.Hang();
    const std::lock_guard hold(lock_);
    connection.ended = true;
}

Response ControlServer::Answer(Connection& connection, Request& request) {
    switch (request.command) {
        case Command::Open:
            return AnswerOpen(connection, request);
        case Command::DeviceControl:
            return AnswerControl(connection, request);
        case Command::Facts:
            return AnswerFacts(request);
        case Command::ReadSectors:
            return AnswerSectors(request, false);
        case Command::ReadPresent:
            return AnswerSectors(request, true);
        case Command::StorageRuns:
            return AnswerRuns(request);
        case Command::ReadRegistry:
            return AnswerRegistry(request);
        case Command::SetSwitch:
            return AnswerSwitch(request);
        case Command::About:
            return {STATUS_SUCCESS, {}, server_.About()};
        case Command::Volumes:
            return AnswerVolumes();
        case Command::Reboot:
            return AnswerReboot();
        case Command::Stop:
            return AnswerStop();
        default:
            return Failed(STATUS_INVALID_PARAMETER, "the server does not know this request");
    }
}

Response ControlServer::AnswerOpen(Connection& connection, const Request& request) {
    Server::Handle handle = 0;
    const NTSTATUS status = server_.OpenControl(request.code, handle);
    if (NT_SUCCESS(status)) connection.handle = handle;
    return Failed(status);
}

Response ControlServer::AnswerControl(const Connection& connection, Request& request) {
    Server::ControlCall call{request.code, std::move(request.input), {}, {}};
    call.output.resize(request.room);
    const NTSTATUS status = server_.Control(connection.handle, call);
    return {status, std::move(call.output), std::move(call.text)};
}

Response ControlServer::AnswerFacts(const Request& request) {
    VolumeName name;
    if (!TakeRecord(request, name)) return Failed(STATUS_INVALID_PARAMETER);
    VolumeFacts facts{};
    Response response;
    response.status = server_.Facts(NameOf(name), facts, response.text);
    if (!NT_SUCCESS(response.status)) return response;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&facts);
    response.output.assign(bytes, bytes + sizeof facts);
    return response;
}

Response ControlServer::AnswerVolumes() {
    const std::vector<VolumeText> volumes = server_.Descriptions();
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(volumes.data());
    return {STATUS_SUCCESS, {bytes, bytes + volumes.size() * sizeof(VolumeText)}, {}};
}

Response ControlServer::AnswerSectors(const Request& request, bool present) {
    SectorsAt place;
    if (!TakeRecord(request, place) || place.length > kMaximumLength) return Failed(STATUS_INVALID_PARAMETER);
    Response response;
    response.output.resize(place.length);
    const std::u16string volume = NameOf(place.volume);
    response.status = present ? server_.ReadPresent(volume, place.offset, response.output)
                              : server_.ReadSectors(volume, place.offset, response.output);
    if (!NT_SUCCESS(response.status)) response.output.clear();
    return response;
}

Response ControlServer::AnswerRuns(const Request& request) {
    VolumeName name;
    if (!TakeRecord(request, name)) return Failed(STATUS_INVALID_PARAMETER);
    std::vector<StorageRun> runs;
    const NTSTATUS status = server_.StorageRuns(NameOf(name), runs);
    if (!NT_SUCCESS(status)) return Failed(status);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(runs.data());
    return {status, {bytes, bytes + runs.size() * sizeof(StorageRun)}, {}};
}

Response ControlServer::AnswerRegistry(const Request& request) {
    const std::u16string text = TextOf(request);
    const std::size_t middle = text.find(u'\0');
    if (middle == text.npos) return Failed(STATUS_INVALID_PARAMETER);
    const std::u16string name = text.substr(middle + 1);
    Response response;
    response.status =
        server_.ReadRegistry(text.substr(0, middle), name.substr(0, name.find(u'\0')), response.output);
    return response;
}

Response ControlServer::AnswerSwitch(const Request& request) {
    const NTSTATUS status = server_.SetSwitch(TextOf(request), request.code != 0);
    if (status == STATUS_INVALID_PARAMETER)
        return Failed(status, "that value of the registry is not a tool's to set");
    return Failed(status);
}

Response ControlServer::AnswerReboot() {
    server_.Log().Line("control: reboot");
    std::string why;
    return server_.Reboot(why) ? Failed(STATUS_SUCCESS) : Failed(STATUS_UNSUCCESSFUL, why);
}

Response ControlServer::AnswerStop() {
    server_.Log().Line("control: stop");
    server_.Stop();
    return Failed(STATUS_SUCCESS);
}

}  // namespace nbd
