// The served machine that a host fault strikes, in a process of its own, and the one that starts behind it.
#pragma once
#include <memory>
#include <string>
#include <vector>
#include "nbd/control_server.h"
#include "tests/nbd/faults/host_faults.h"

namespace fault_sweep {

// How a process of the sweep ends, beside by a signal.
inline constexpr int kLived = 0;   // served on and was shut down in order
inline constexpr int kNamed = 3;   // ended itself and said why
inline constexpr int kBroken = 4;  // broke a promise and said which

// What a victim was promised, seen by the sweep whatever becomes of it: bit n for the n-th mark.
struct Promises {
    std::atomic<std::uint32_t> durable;
    std::atomic<std::uint32_t> lost;  // those found missing since it was cleared
};

struct Broken : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A machine with one protected volume whose changes are kept; mark 0 was kept over a boot.
void MakeTemplate(const std::string& folder);

class Victim {
public:
    Victim(std::string folder, host_faults::Plan& plan, Promises& promises);
    ~Victim();

    // Each phase runs with the plan armed; what its clients are refused is theirs to bear. Throws Broken where
    // the server does what it must not, and lets through what ends a server with a reason (nbd::Error).
    void Start();
    void Requests();
    void Save();
    void Reboot();
    void Stop();

    // Whoever comes later is served, and everything promised is there.
    void CheckServes();
    void CheckPromises();

private:
    class Armed;
    using Connections = std::vector<std::unique_ptr<nbd::Server::Connection>>;

    void PowerOn();
    void Open(const char* name);
    void CloseAll();
    void Use(unsigned mark);
    void WorkBeforeTheEnd();
    NTSTATUS Mark(unsigned mark);
    bool Holds(unsigned mark);
    void AskTool();

    const std::string folder_;
    host_faults::Plan& plan_;
    Promises& promises_;
    std::unique_ptr<nbd::Server> server_;
    std::unique_ptr<nbd::ControlServer> control_;
    Connections clients_;
};

// In a process of its own behind a victim's: the machine starts and keeps what was promised, or says why not.
// `inOrder`: the victim was shut down in order.
void CheckNextStart(const std::string& folder, Promises& promises, bool inOrder);

}  // namespace fault_sweep
