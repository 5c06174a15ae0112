// A machine that boots anew when its last client has gone: what a visitor leaves behind is then what a boot
// makes of it, whatever the visitor switched off.
#pragma once
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include "nbd/server.h"

namespace nbd {

class IdleReboot {
public:
    // `patience`: how long nobody must be connected. The server outlives this.
    IdleReboot(Server& server, std::chrono::seconds patience);
    ~IdleReboot();
    IdleReboot(const IdleReboot&) = delete;
    IdleReboot& operator=(const IdleReboot&) = delete;

    // A client has gone, perhaps the last one.
    void ClientLeft();

private:
    using Clock = std::chrono::steady_clock;
    void Watch();

    Server& server_;
    const std::chrono::seconds patience_;
    std::mutex lock_;  // guards what follows
    std::condition_variable changes_;
    std::optional<Clock::time_point> when_;  // to look whether the machine is to reboot
    bool ends_ = false;
    std::thread thread_;
};

}  // namespace nbd
