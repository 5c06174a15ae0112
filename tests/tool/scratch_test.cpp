#include <gtest/gtest.h>
#include <chrono>
#include <csignal>
#include <thread>
#include <sys/wait.h>
#include "tests/support/scratch_folder.h"
#include "tool/error.h"
#include "tool/demo/scratch.h"

namespace {

using namespace tool;

TEST(Scratch, IsRemovedWhenASignalEndsTheProgram) {
    TestFolder parent;
    const pid_t program = fork();
    ASSERT_GE(program, 0);
    if (program == 0) {
        const auto sleeper = [](const std::string& folder) {
            std::ofstream(folder + "/file") << "something";
            for (;;) pause();
            return 0;
        };
        _exit(RunInScratch(parent.Path(), 1, sleeper));
    }
    while (parent.Empty()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    kill(program, SIGTERM);
    int status = 0;
    ASSERT_EQ(waitpid(program, &status, 0), program);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 128 + SIGTERM);
    EXPECT_TRUE(parent.Empty());
    // The work itself may be stopped, whatever it is at.
    EXPECT_EQ(RunInScratch(parent.Path(), 1, [](const std::string&) { return raise(SIGKILL); }), 128 + SIGKILL);
    EXPECT_TRUE(parent.Empty());
}

}  // namespace
