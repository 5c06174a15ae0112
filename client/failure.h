// How kvrctl ends, and why it could not do what it was asked.
#pragma once
#include <stdexcept>
#include <string>

namespace ctl {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;      // refused, failed, the configuration has errors or is not met
inline constexpr int kExitUsage = 2;       // the command line makes no sense
inline constexpr int kExitNotRunning = 3;  // no driver: not loaded, or the hosted machine is off
inline constexpr int kExitBusy = 4;        // another program holds the control device, or the volume
inline constexpr int kExitDenied = 5;      // this user may not
inline constexpr int kExitStopped = 130;   // ended by Ctrl-C before it was done

// One sentence for the user, without the program's name and without a full stop.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& text, int exitCode = kExitFailed)
        : std::runtime_error(text), exitCode_(exitCode) {}
    int ExitCode() const { return exitCode_; }

private:
    int exitCode_;
};

}  // namespace ctl
