// Starting and stopping the server of a machine's folder, and talking to it.
#pragma once
#include <string>
#include <vector>

namespace tool {

// The machine is on, and something is not as it is configured; what it is has been printed.
inline constexpr int kExitNotAsConfigured = 3;

struct ServeOptions {
    std::string folder;
    bool background = false;      // return when the server is ready
    bool rebootWhenIdle = false;  // once its last client has been gone for so long:
    int idleSeconds = 10;
    std::vector<std::string> further;  // arguments for nbdkit
};

// Each returns an exit code, 0 for success, and throws nbd::Error or tool::Error with a sentence for the user.
// Serves until the server ends: nbdkit with the plugin on the folder's socket, with lines to paste once it is
// ready. In the background, and from Reboot: kExitNotAsConfigured where it is due.
int Serve(const ServeOptions& options);
int Reboot(const std::string& folder);
// Returns when the server is gone and the machine off.
int Stop(const std::string& folder);
// Prints the log, without the driver's own lines unless asked for; `follow`: and what is added to it, until
// interrupted.
int ShowLog(const std::string& folder, bool follow, bool withDriver);

}  // namespace tool
