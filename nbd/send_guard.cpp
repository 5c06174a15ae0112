// A library that kvrhost loads into nbdkit before everything else, to keep one client's death from being
// everybody's.
//
// Of nbdkit's threads that serve one connection, the first that meets a failed socket marks the connection as
// dead and forgets the socket. Releases up to the present distribution's end with a failed assertion when
// another thread has seen the connection alive and is only now about to send its reply. For the machine that is
// a power cut, and a virtual machine that is killed under load is enough for it. Here a reply to nobody counts
// as sent, so that only reading finds a dead connection, and the moment of forgetting waits for the replies
// that are on their way.
#include <cerrno>
#include <chrono>
#include <thread>
#include <dlfcn.h>
#include <sys/socket.h>

namespace {

// Long against the few instructions between a thread's look at the connection and its send.
constexpr std::chrono::milliseconds kForReplies{100};

template <class Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t send(int socket, const void* data, size_t length,
                                                               int flags) {
    static auto* const next = Next<ssize_t(int, const void*, size_t, int)>("send");
    const ssize_t sent = next(socket, data, length, flags);
    const bool gone = sent < 0 && (errno == EPIPE || errno == ECONNRESET || errno == ETIMEDOUT);
    return gone ? static_cast<ssize_t>(length) : sent;
}

extern "C" __attribute__((visibility("default"))) int shutdown(int socket, int how) noexcept {
    static auto* const next = Next<int(int, int)>("shutdown");
    const int result = next(socket, how);
    const int error = errno;
    if (how == SHUT_WR) std::this_thread::sleep_for(kForReplies);
    errno = error;
    return result;
}
