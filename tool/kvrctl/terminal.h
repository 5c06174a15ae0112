// Where the tool's words go, and the passing of time in front of it.
#pragma once
#include <chrono>
#include <ostream>

namespace ctl {

class Terminal {
public:
    Terminal(std::ostream& output, std::ostream& errors) : out(output), err(errors) {}
    virtual ~Terminal() = default;
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // Waits. False, at once, when the user has asked for the end (Ctrl-C), now or earlier.
    virtual bool Pause(std::chrono::milliseconds time) = 0;
    // From now on Ctrl-C makes Pause answer false instead of ending the program.
    virtual void CatchInterrupt() = 0;

    std::ostream& out;
    std::ostream& err;
    bool isTerminal = false;  // `out` is a screen: redraw, colour
    unsigned width = 80;      // of it, in characters
};

}  // namespace ctl
