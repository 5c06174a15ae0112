// The connection of a remote disk, its requests, and the thread that carries them out (remote_disk.h).
#pragma once
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>
#include "machine/disk/remote_server.h"
#include "platform/kernel.h"
#include "posix/file_io.h"

namespace machine {

class RemoteLink {
public:
    enum class Kind { Read, Write, Flush };
    struct Chunk {
        std::uint64_t offset = 0;
        std::vector<std::uint8_t> bytes;
    };
    using Clock = std::chrono::steady_clock;
    struct Request;

    // Takes a server that is ready.
    RemoteLink(std::unique_ptr<RemoteServer> server, std::chrono::milliseconds patience);
    ~RemoteLink();
    RemoteLink(const RemoteLink&) = delete;
    RemoteLink& operator=(const RemoteLink&) = delete;

    // Begins one request. May throw std::bad_alloc and std::system_error, and then has done nothing.
    std::shared_ptr<Request> Begin(Kind kind, Chunk chunk);
    // Waits for its end, at most once. A read's data is in the chunk. STATUS_DISK_FULL when the server has no
    // room. A request whose end nobody waits for is carried out all the same.
    NTSTATUS End(Request& request, Chunk& chunk);
    NTSTATUS Carry(Kind kind, Chunk chunk);  // both
    // So much is answered and not flushed that it is time to flush.
    bool WantsFlush();
    std::uint32_t MostBytes() const { return facts_.mostBytes; }  // of one request
    bool Flushes() const { return facts_.flushes; }               // else every answer is as good as a flush

private:
    enum class Phase { Down, Connecting, Replaying, Up };
    using Requests = std::list<std::shared_ptr<Request>>;

    // On the thread, under lock_.
    void Run();
    void WorkOnce(Clock::time_point now);
    Clock::time_point NextDate(Clock::time_point now) const;
    void Wait(std::unique_lock<std::mutex>& hold, Clock::time_point until);
    void BeginConnecting(Clock::time_point now);
    void Connected(Clock::time_point now);
    void Lost(Clock::time_point now);
    void SendReplay();
    void Send();
    bool MustWait(const Request& request) const;
    bool SendOne(Request& request);
    bool IsAnySent() const;
    void Expire(Clock::time_point now);
    void Answered(Request& request, int error);
    void Finish(Request& request, NTSTATUS status);
    void Forget(std::uint64_t flushes);
    static int OnAnswer(void* request, int* error);
    static int OnReplayed(void* link, int* error);

    const std::string uri_;
    const std::chrono::milliseconds patience_;
    const RemoteServer::Facts facts_;
    const posix::File wake_;

    std::mutex lock_;  // guards what follows
    std::condition_variable done_;
    std::thread thread_;  // from the first request on
    bool ending_ = false;
    std::unique_ptr<RemoteServer> server_;  // null: no connection, nor one being made
    Phase phase_ = Phase::Up;
    bool leaving_ = false;  // the server is about to end: nothing more is sent to it
    bool silent_ = false;   // a request has ended without an answer, and none has come since
    Clock::time_point nextAttempt_{}, attemptEnds_{};
    Clock::duration pause_{};
    Requests requests_;           // in the order in which they came
    std::list<Chunk> unflushed_;  // answered, in the order of the answers
    std::uint64_t unflushedBytes_ = 0;
    std::uint64_t forgotten_ = 0;  // how many were flushed and are gone from there
    std::list<Chunk>::iterator replay_;
    unsigned replaying_ = 0;  // under way
    bool replayFailed_ = false;
};

struct RemoteLink::Request {
    RemoteLink* link;
    Kind kind;
    std::list<Chunk> chunk;  // one; a write's goes over to the unflushed ones when it is answered
    std::uint64_t offset, length;
    Clock::time_point deadline;
    bool sent = false;  // and not answered by the connection that there is
    bool done = false;  // the caller has its status; one that is sent and done waited too long
    NTSTATUS status = STATUS_SUCCESS;
    std::uint64_t flushes = 0;  // a flush: how many unflushed writes had been answered when it was sent
    bool Overlaps(const Request& other) const {
        return offset < other.offset + other.length && other.offset < offset + length;
    }
};

}  // namespace machine
