#include "nbd/end_watch.h"
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include "nbd/error.h"
#include "platform/host/check/host_memory.h"

namespace nbd {

EndWatch::EndWatch(std::function<void()> end, std::function<void()> giveUp)
    : end_(std::move(end)), giveUp_(std::move(giveUp)) {
    sigset_t ending;
    sigemptyset(&ending);
    for (const int signal : {SIGTERM, SIGINT, SIGQUIT, SIGHUP}) sigaddset(&ending, signal);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    signals_ = posix::File(signalfd(-1, &ending, SFD_CLOEXEC));
    asked_ = posix::File(eventfd(0, EFD_CLOEXEC));
    destroyed_ = posix::File(eventfd(0, EFD_CLOEXEC));
    if (!signals_.IsOpen() || !asked_.IsOpen() || !destroyed_.IsOpen())
        throw Error(std::string("cannot watch for signals: ") + std::strerror(errno));
    const bool watched = host::WithinMemory(false, [this] {
        thread_ = std::thread([this] { Watch(); });
        return true;
    });
    if (!watched) throw Error("the host has no thread for watching for signals");
}

EndWatch::~EndWatch() {
    eventfd_write(destroyed_.Get(), 1);
    thread_.join();
}

void EndWatch::Ask() {
    eventfd_write(asked_.Get(), 1);
}

void EndWatch::Watch() {
    pollfd waits[3] = {{destroyed_.Get(), POLLIN, 0}, {signals_.Get(), POLLIN, 0}, {asked_.Get(), POLLIN, 0}};
    while (poll(waits, 3, -1) < 0 && errno == EINTR) {
    }
    if (waits[0].revents != 0) return;
    end_();
    if (poll(waits, 1, kPatienceMilliseconds) == 0) giveUp_();
}

}  // namespace nbd
