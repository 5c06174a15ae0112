#include "nbd/end_watch.h"
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>
#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include "nbd/error.h"

namespace nbd {

EndWatch::EndWatch(std::function<void()> end, std::function<void()> giveUp)
    : end_(std::move(end)), giveUp_(std::move(giveUp)) {
    sigset_t ending;
    sigemptyset(&ending);
    for (const int signal : {SIGTERM, SIGINT, SIGQUIT, SIGHUP}) sigaddset(&ending, signal);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    signals_ = signalfd(-1, &ending, SFD_CLOEXEC);
    if (signals_ < 0 || pipe2(asked_, O_CLOEXEC) != 0 || pipe2(destroyed_, O_CLOEXEC) != 0)
        throw Error(std::string("cannot watch for signals: ") + std::strerror(errno));
    thread_ = std::thread([this] { Watch(); });
}

EndWatch::~EndWatch() {
    close(destroyed_[1]);
    thread_.join();
    for (const int file : {signals_, asked_[0], asked_[1], destroyed_[0]}) close(file);
}

void EndWatch::Ask() {
    const char question = 0;
    (void)!write(asked_[1], &question, 1);  // a pipe with a question in it already is as good
}

void EndWatch::Watch() {
    pollfd waits[3] = {{destroyed_[0], POLLIN, 0}, {signals_, POLLIN, 0}, {asked_[0], POLLIN, 0}};
    while (poll(waits, 3, -1) < 0 && errno == EINTR) {
    }
    if (waits[0].revents != 0) return;
    end_();
    if (poll(waits, 1, kPatienceMilliseconds) == 0) giveUp_();
}

}  // namespace nbd
