#include <gtest/gtest.h>
#include <chrono>
#include <csignal>
#include <thread>
#include <sys/wait.h>
#include "tests/tool/scratch_folder.h"
#include "tool/error.h"
#include "tool/demo/scratch.h"

namespace {

using namespace tool;

int Leave(const std::string& folder, int code) {
    std::ofstream(folder + "/file") << "something";
    std::filesystem::create_directory(folder + "/below");
    return code;
}

TEST(Scratch, IsRemovedAfterWorkThatIsStopped) {
    TestFolder parent;
    const auto stopped = [](const std::string& folder) {
        Leave(folder, 0);
        signal(SIGKILL, SIG_DFL);
        raise(SIGKILL);
        return 0;
    };
    EXPECT_EQ(RunInScratch(parent.Path(), 1, stopped), 128 + SIGKILL);
    EXPECT_TRUE(parent.Empty());
}

TEST(Scratch, IsRemovedWhenASignalEndsTheProgram) {
    TestFolder parent;
    const pid_t program = fork();
    ASSERT_GE(program, 0);
    if (program == 0) {
        const auto sleeper = [](const std::string& folder) {
            Leave(folder, 0);
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
}

}  // namespace
