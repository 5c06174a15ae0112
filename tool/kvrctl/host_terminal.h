// The terminal in front of which this program runs.
#pragma once
#include "tool/kvrctl/terminal.h"

namespace ctl {

class HostTerminal : public Terminal {
public:
    HostTerminal(std::ostream& output, std::ostream& errors);
    bool Pause(std::chrono::milliseconds time) override;
    void CatchInterrupt() override;
};

}  // namespace ctl
