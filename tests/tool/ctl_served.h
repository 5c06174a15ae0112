// For tests of the control tool against the real driver of a served machine, through its control socket.
#pragma once
#include "ctl_support.h"
#include "platform/host/sync/thread.h"
#include "tests/nbd/served.h"

namespace ctl_test {

class CtlServed : public nbd_test::Served {
protected:
    using Served::Served;
    static bool Wait() {
        host::JoinSystemThreads();
        return true;
    }
    // Whenever the tool pauses, what it waits for comes to its end.
    Result Run(std::vector<std::string> words, const std::function<bool()>& onPause = Wait) {
        words.insert(words.begin(), {"--machine", Folder()});
        return RunWith(ctl::MakeWorld, words, onPause);
    }
    // The commands all succeed.
    void Do(const std::vector<std::vector<std::string>>& commands) {
        for (const auto& words : commands) {
            const Result result = Run(words);
            EXPECT_EQ(ctl::kExitOk, result.exitCode) << testing::PrintToString(words) << result.err;
        }
    }
};

}  // namespace ctl_test
