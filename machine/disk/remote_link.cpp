#include "machine/disk/remote_link.h"
#include <algorithm>
#include <cerrno>
#include <sys/eventfd.h>
#include <unistd.h>

namespace machine {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kFirstPause = 50ms, kLongestPause = 5s;
constexpr auto kLongestAttempt = 10s;  // from the first byte to the end of the handshake
constexpr unsigned kMostUnderWay = 64;
constexpr unsigned kMostReplaying = 16;
constexpr std::uint64_t kMostUnflushed = 64 * 1024 * 1024;  // bytes

}  // namespace

RemoteLink::RemoteLink(std::unique_ptr<RemoteServer> server, std::chrono::milliseconds patience)
    : uri_(server->Uri()),
      patience_(patience),
      facts_(server->Ask()),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      server_(std::move(server)) {}

// Without the thread nothing was ever sent here: after a fork the connection is the other process's.
RemoteLink::~RemoteLink() {
    if (!thread_.joinable()) return;
    {
        const std::lock_guard hold(lock_);
        ending_ = true;
        eventfd_write(wake_.Get(), 1);
    }
    thread_.join();
}

std::shared_ptr<RemoteLink::Request> RemoteLink::Begin(Kind kind, Chunk chunk) {
    auto request = std::make_shared<Request>();
    request->link = this;
    request->kind = kind;
    request->offset = chunk.offset;
    request->length = chunk.bytes.size();
    request->chunk.push_back(std::move(chunk));
    Requests node{request};
    const std::lock_guard hold(lock_);
    if (!thread_.joinable()) thread_ = std::thread([this] { Run(); });
    // Who has waited long once is not to wait as long again for a disk that is gone.
    request->deadline = Clock::now() + (silent_ ? patience_ / 10 : patience_);
    requests_.splice(requests_.end(), node);
    eventfd_write(wake_.Get(), 1);
    return request;
}

NTSTATUS RemoteLink::End(Request& request, Chunk& chunk) {
    std::unique_lock hold(lock_);
    done_.wait(hold, [&] { return request.done; });
    if (request.status == STATUS_SUCCESS && request.kind == Kind::Read)
        chunk = std::move(request.chunk.front());
    return request.status;
}

NTSTATUS RemoteLink::Carry(Kind kind, Chunk chunk) {
    const std::shared_ptr<Request> request = Begin(kind, std::move(chunk));
    return End(*request, chunk);
}

bool RemoteLink::WantsFlush() {
    const std::lock_guard hold(lock_);
    return unflushedBytes_ > kMostUnflushed;
}

// ---- the thread ------------------------------------------------------------------------------------------

void RemoteLink::Run() {
    std::unique_lock hold(lock_);
    while (!ending_) {
        WorkOnce(Clock::now());
        Wait(hold, NextDate(Clock::now()));
    }
    if (server_ != nullptr) server_->Leave();
}

void RemoteLink::WorkOnce(Clock::time_point now) {
    Expire(now);
    const bool late = phase_ == Phase::Connecting && now >= attemptEnds_;
    const bool left = (leaving_ && !IsAnySent()) || (replayFailed_ && replaying_ == 0);
    if (server_ != nullptr && (server_->IsGone() || late || left)) Lost(now);
    if (phase_ == Phase::Down && now >= nextAttempt_) BeginConnecting(now);
    if (phase_ == Phase::Connecting && server_->IsReady()) Connected(now);
    if (phase_ == Phase::Replaying) SendReplay();
    if (phase_ == Phase::Up) Send();
    requests_.remove_if([](const auto& request) { return request->done && !request->sent; });
}

// When something is to be done even if nothing happens.
RemoteLink::Clock::time_point RemoteLink::NextDate(Clock::time_point now) const {
    const bool left = (leaving_ && !IsAnySent()) || (replayFailed_ && replaying_ == 0);
    if (server_ != nullptr && (server_->IsGone() || left)) return now;  // found by sending
    Clock::time_point next = now + 1h;
    if (phase_ == Phase::Down) next = nextAttempt_;
    if (phase_ == Phase::Connecting) next = attemptEnds_;
    for (const auto& request : requests_)
        if (!request->done) next = std::min(next, request->deadline);
    return next;
}

void RemoteLink::Wait(std::unique_lock<std::mutex>& hold, Clock::time_point until) {
    pollfd waits[2] = {{wake_.Get(), POLLIN, 0}, {-1, 0, 0}};
    if (server_ != nullptr) waits[1] = server_->Waits();
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
    hold.unlock();
    const int count = poll(waits, 2, static_cast<int>(std::clamp<std::int64_t>(left, 0, 60'000)));
    hold.lock();
    eventfd_t ignored = 0;
    eventfd_read(wake_.Get(), &ignored);
    if (count > 0 && server_ != nullptr && waits[1].revents != 0) server_->Notice(waits[1].revents);
}

// ---- connections -----------------------------------------------------------------------------------------

void RemoteLink::BeginConnecting(Clock::time_point now) {
    try {
        server_ = RemoteServer::Begin(uri_);
    } catch (const std::bad_alloc&) {
        server_ = nullptr;
    }
    if (server_ == nullptr) return Lost(now);
    phase_ = Phase::Connecting;
    attemptEnds_ = now + kLongestAttempt;
}

// Another disk in the place of ours is none of ours.
void RemoteLink::Connected(Clock::time_point now) {
    if (server_->Ask() != facts_) return Lost(now);
    replay_ = unflushed_.begin();
    phase_ = Phase::Replaying;
}

// What was under way is sent again; what nobody waits for any more is over.
void RemoteLink::Lost(Clock::time_point now) {
    server_.reset();
    for (const auto& request : requests_) request->sent = false;
    leaving_ = replayFailed_ = false;
    replaying_ = 0;
    pause_ = std::clamp<Clock::duration>(pause_ * 2, kFirstPause, kLongestPause);
    nextAttempt_ = now + pause_;
    phase_ = Phase::Down;
}

// ---- requests --------------------------------------------------------------------------------------------

// Some at a time that do not overlap, and then the next ones, so that the last one of a place stays there.
void RemoteLink::SendReplay() {
    if (replaying_ != 0 || replayFailed_) return;
    const auto overlaps = [](const Chunk& one) {
        return [&one](const Chunk& other) {
            return one.offset < other.offset + other.bytes.size() &&
                   other.offset < one.offset + one.bytes.size();
        };
    };
    for (const auto first = replay_; replay_ != unflushed_.end() && replaying_ < kMostReplaying; ++replay_) {
        if (std::any_of(first, replay_, overlaps(*replay_))) return;
        ++replaying_;
        if (server_->Write(replay_->bytes.data(), replay_->bytes.size(), replay_->offset, OnReplayed, this))
            continue;
        --replaying_;
        replayFailed_ = true;
        return;
    }
    if (replaying_ == 0) phase_ = Phase::Up;
}

bool RemoteLink::IsAnySent() const {
    return std::any_of(requests_.begin(), requests_.end(), [](const auto& request) { return request->sent; });
}

void RemoteLink::Send() {
    auto underWay =
        std::count_if(requests_.begin(), requests_.end(), [](const auto& request) { return request->sent; });
    for (const auto& request : requests_) {
        if (underWay >= kMostUnderWay || leaving_) return;
        if (request->sent || request->done || MustWait(*request)) continue;
        if (SendOne(*request)) {
            ++underWay;
        } else if (server_->IsGone()) {
            return;
        } else {
            Finish(*request, STATUS_IO_DEVICE_ERROR);
        }
    }
}

// A write waits for the earlier ones that it overlaps, also those that nobody waits for any more.
bool RemoteLink::MustWait(const Request& request) const {
    if (request.kind != Kind::Write) return false;
    for (const auto& earlier : requests_) {
        if (earlier.get() == &request) return false;
        const bool open = earlier->sent || !earlier->done;
        if (open && earlier->kind == Kind::Write && earlier->Overlaps(request)) return true;
    }
    return false;
}

// It may be answered before this returns.
bool RemoteLink::SendOne(Request& request) {
    std::uint8_t* const bytes = request.chunk.front().bytes.data();
    request.sent = true;
    request.flushes = forgotten_ + unflushed_.size();
    bool sent = false;
    if (request.kind == Kind::Read)
        sent = server_->Read(bytes, request.length, request.offset, OnAnswer, &request);
    else if (request.kind == Kind::Write)
        sent = server_->Write(bytes, request.length, request.offset, OnAnswer, &request);
    else
        sent = server_->Flush(OnAnswer, &request);
    if (!sent) request.sent = false;
    return sent;
}

// One that is under way stays so: it is answered, or ends with its connection.
void RemoteLink::Expire(Clock::time_point now) {
    for (const auto& request : requests_) {
        if (request->done || request->deadline > now) continue;
        silent_ = true;
        Finish(*request, STATUS_IO_DEVICE_ERROR);
    }
}

void RemoteLink::Finish(Request& request, NTSTATUS status) {
    request.status = status;
    request.done = true;
    done_.notify_all();
}

void RemoteLink::Answered(Request& request, int error) {
    if (error == ENOTCONN) return;  // the connection's end, which Lost() deals with
    request.sent = false;
    if (error == ESHUTDOWN) {
        leaving_ = true;  // the server has not done it and ends: to be sent to the next one
        return;
    }
    silent_ = false;
    pause_ = {};
    if (request.kind == Kind::Flush && error == 0) Forget(request.flushes);
    if (request.kind == Kind::Write && error == 0 && facts_.flushes) {
        unflushedBytes_ += request.length;
        unflushed_.splice(unflushed_.end(), request.chunk);
    }
    if (request.done) return;
    const bool full = error == ENOSPC || error == EDQUOT;
    Finish(request, error == 0 ? STATUS_SUCCESS : full ? STATUS_DISK_FULL : STATUS_IO_DEVICE_ERROR);
}

void RemoteLink::Forget(std::uint64_t flushes) {
    for (; forgotten_ < flushes; ++forgotten_) {
        unflushedBytes_ -= unflushed_.front().bytes.size();
        unflushed_.pop_front();
    }
}

int RemoteLink::OnAnswer(void* request, int* error) {
    auto& answered = *static_cast<Request*>(request);
    answered.link->Answered(answered, *error);
    return 1;
}

int RemoteLink::OnReplayed(void* link, int* error) {
    auto& self = *static_cast<RemoteLink*>(link);
    --self.replaying_;
    if (*error != 0) self.replayFailed_ = true;
    return 1;
}

}  // namespace machine
