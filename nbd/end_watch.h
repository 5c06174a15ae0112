// The end of a server. nbdkit waits for its clients before it ends, and one that is connected and silent makes
// it wait for ever; a machine, though, is to be shut down when it is asked to be. So the signals that end
// nbdkit come here first: the machine shuts down, then nbdkit is told, and clients that stay get no more time.
#pragma once
#include <functional>
#include <thread>

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
    int signals_ = -1;         // a signalfd
    int asked_[2] = {-1, -1};  // pipes; a byte is a question, the end of the second one is the end of this
    int destroyed_[2] = {-1, -1};
    std::thread thread_;
};

}  // namespace nbd
