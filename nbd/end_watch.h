// The end of a server. nbdkit waits for its clients before it ends, and one that is connected and silent makes
// it wait for ever; a machine, though, is to be shut down when it is asked to be. So the signals that end
// nbdkit come here first: the machine shuts down, then nbdkit is told, and clients that stay get no more time.
#pragma once
#include <functional>
#include <thread>
#include "posix/file_io.h"

namespace nbd {

class EndWatch {
public:
    // Blocks the ending signals in the calling thread and those that it starts. When one arrives, `end` shuts
    // down and tells nbdkit; `giveUp` ends the process when this object still lives kPatience later.
    EndWatch(std::function<void()> end, std::function<void()> giveUp);
    ~EndWatch();
    EndWatch(const EndWatch&) = delete;
    EndWatch& operator=(const EndWatch&) = delete;

    // The same as such a signal.
    void Ask();

    static constexpr int kPatienceMilliseconds = 500;

private:
    void Watch();

    const std::function<void()> end_;
    const std::function<void()> giveUp_;
    posix::File signals_;    // a signalfd
    posix::File asked_;      // an eventfd: counts the questions
    posix::File destroyed_;  // an eventfd: not 0 is the end of this
    std::thread thread_;
};

}  // namespace nbd
