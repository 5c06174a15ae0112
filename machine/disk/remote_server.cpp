#include "machine/disk/remote_server.h"
#include <algorithm>
#include <cerrno>
#include <libnbd.h>

namespace machine {
namespace {

// More would only make requests longer that somebody else waits behind.
constexpr std::int64_t kMostBytes = 1024 * 1024;

nbd_completion_callback Callback(RemoteServer::Answer* answer, void* context) {
    nbd_completion_callback callback{};
    callback.callback = answer;
    callback.user_data = context;
    return callback;
}

}  // namespace

// A URI may name files of this host: the user wrote it.
nbd_handle* RemoteServer::NewHandle() {
    nbd_handle* handle = nbd_create();
    if (handle != nullptr) nbd_set_uri_allow_local_file(handle, true);
    return handle;
}

std::unique_ptr<RemoteServer> RemoteServer::Open(const std::string& uri, std::string& error) {
    nbd_handle* handle = NewHandle();
    if (handle != nullptr && nbd_connect_uri(handle, uri.c_str()) == 0)
        return std::unique_ptr<RemoteServer>(new RemoteServer(handle, uri));
    error = nbd_get_error();
    nbd_close(handle);
    return nullptr;
}

std::unique_ptr<RemoteServer> RemoteServer::Begin(const std::string& uri) {
    nbd_handle* handle = NewHandle();
    if (handle != nullptr && nbd_aio_connect_uri(handle, uri.c_str()) == 0)
        return std::unique_ptr<RemoteServer>(new RemoteServer(handle, uri));
    nbd_close(handle);
    return nullptr;
}

RemoteServer::~RemoteServer() {
    nbd_close(handle_);
}

bool RemoteServer::IsReady() const {
    return nbd_aio_is_ready(handle_) == 1 || nbd_aio_is_processing(handle_) == 1;
}

bool RemoteServer::IsGone() const {
    return nbd_aio_is_dead(handle_) == 1 || nbd_aio_is_closed(handle_) == 1;
}

RemoteServer::Facts RemoteServer::Ask() const {
    const std::int64_t size = nbd_get_size(handle_);
    const std::int64_t least = nbd_get_block_size(handle_, LIBNBD_SIZE_MINIMUM);
    const std::int64_t most = nbd_get_block_size(handle_, LIBNBD_SIZE_MAXIMUM);
    Facts facts;
    facts.size = static_cast<std::uint64_t>(std::max<std::int64_t>(size, 0));
    facts.leastBytes = static_cast<std::uint32_t>(std::clamp<std::int64_t>(least, 1, 64 * 1024));
    facts.mostBytes =
        static_cast<std::uint32_t>(most > 0 ? std::clamp<std::int64_t>(most, 4096, kMostBytes) : kMostBytes);
    facts.flushes = nbd_can_flush(handle_) == 1;
    facts.readOnly = nbd_is_read_only(handle_) != 0;
    return facts;
}

bool RemoteServer::Read(void* buffer, std::size_t length, std::uint64_t offset, Answer* answer, void* context) {
    return nbd_aio_pread(handle_, buffer, length, offset, Callback(answer, context), 0) >= 0;
}

bool RemoteServer::Write(const void* buffer, std::size_t length, std::uint64_t offset, Answer* answer,
                         void* context) {
    return nbd_aio_pwrite(handle_, buffer, length, offset, Callback(answer, context), 0) >= 0;
}

bool RemoteServer::Flush(Answer* answer, void* context) {
    return nbd_aio_flush(handle_, Callback(answer, context), 0) >= 0;
}

pollfd RemoteServer::Waits() const {
    const unsigned direction = nbd_aio_get_direction(handle_);
    short events = 0;
    if ((direction & LIBNBD_AIO_DIRECTION_READ) != 0) events |= POLLIN;
    if ((direction & LIBNBD_AIO_DIRECTION_WRITE) != 0) events |= POLLOUT;
    return {nbd_aio_get_fd(handle_), events, 0};
}

// A failure shows in IsGone().
void RemoteServer::Notice(short events) {
    const unsigned direction = nbd_aio_get_direction(handle_);
    const bool ended = (events & (POLLHUP | POLLERR | POLLNVAL)) != 0;
    if ((direction & LIBNBD_AIO_DIRECTION_READ) != 0 && ((events & POLLIN) != 0 || ended))
        nbd_aio_notify_read(handle_);
    else if ((direction & LIBNBD_AIO_DIRECTION_WRITE) != 0 && ((events & POLLOUT) != 0 || ended))
        nbd_aio_notify_write(handle_);
}

void RemoteServer::Leave() {
    if (IsReady()) nbd_aio_disconnect(handle_, 0);
}

}  // namespace machine
