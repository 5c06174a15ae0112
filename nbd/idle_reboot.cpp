#include "nbd/idle_reboot.h"

namespace nbd {
namespace {

// While storage is being made.
constexpr std::chrono::seconds kBetweenLooks{1};

}  // namespace

IdleReboot::IdleReboot(Server& server, std::chrono::seconds patience)
    : server_(server), patience_(patience), thread_([this] { Watch(); }) {}

IdleReboot::~IdleReboot() {
    {
        const std::lock_guard hold(lock_);
        ends_ = true;
        changes_.notify_all();
    }
    thread_.join();
}

void IdleReboot::ClientLeft() {
    const std::lock_guard hold(lock_);
    when_ = Clock::now() + patience_;
    changes_.notify_all();
}

void IdleReboot::Watch() {
    std::unique_lock hold(lock_);
    while (!ends_) {
        if (!when_) {
            changes_.wait(hold);
        } else if (Clock::now() < *when_) {
            changes_.wait_until(hold, Clock::time_point(*when_));
        } else {
            when_.reset();
            hold.unlock();
            const Server::Idle result = server_.RebootWhenIdle();
            hold.lock();
            if (result == Server::Idle::Busy && !when_) when_ = Clock::now() + kBetweenLooks;
        }
    }
}

}  // namespace nbd
