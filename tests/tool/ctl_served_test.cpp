// The command line against the real driver of a served machine, through its control socket.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include "ctl_support.h"
#include "client/wire_channel.h"
#include "tests/nbd/served.h"
#include "platform/host/sync/thread.h"
#include "tool/kvrctl/saved_map.h"

namespace {

using namespace ctl;
using namespace ctl_test;

using nbd_test::kMiB;

class CtlServed : public nbd_test::Served {
protected:
    Result Run(std::vector<std::string> words, const std::function<bool()>& onPause = {}) {
        words.insert(words.begin(), {"--machine", Folder()});
        return RunWith(MakeWorld, words, onPause);
    }
    // The commands all succeed.
    void Do(const std::vector<std::vector<std::string>>& commands) {
        for (const auto& words : commands) {
            const Result result = Run(words, Wait);
            EXPECT_EQ(kExitOk, result.exitCode) << testing::PrintToString(words) << result.err;
        }
    }
    static bool Wait() {
        host::JoinSystemThreads();
        return true;
    }
};

// With a client that goes on reading while the machine boots under it.
TEST_F(CtlServed, FromNothingToAProtectedVolumeAndBack) {
    EXPECT_TRUE(Run({"status"}).out.starts_with("Protection is off"));
    EXPECT_EQ("kvrctl: there is no configuration yet\n", Run({"config", "get"}).err);
    Do({{"swap", "make", "2", "16M"},
        {"enable"},
        {"protect", "2", "--at-boot", "keep"},
        {"config", "check"},
        {"debug"}});
    Reboot();
    auto client = Connect("HarddiskVolume2");
    std::vector<std::uint8_t> bytes(3 * kMiB, 'w'), first(4096);
    ASSERT_EQ(STATUS_SUCCESS, Transfer(client, nbd::Server::Action::Write, 40 * kMiB, bytes));
    const std::string status = Run({"status"}).out;
    EXPECT_NE(std::string::npos, status.find("HarddiskVolume2     fixed  protected      16 MiB  3 MiB  13 MiB"))
        << status;
    EXPECT_NE(std::string::npos, Run({"swap", "make", "2", "1M"}).err.find("is protected"));
    std::atomic<bool> ends{false};
    std::atomic<unsigned> reads{0};
    std::thread busy([&] {
        for (; !ends; ++reads) EXPECT_EQ(STATUS_SUCCESS, Transfer(client, nbd::Server::Action::Read, 0, first));
    });
    Reboot();
    for (const unsigned then = reads; reads == then;) std::this_thread::yield();
    ends = true;
    busy.join();
    server->Disconnect(std::move(client));
    const MapSummary summary = Summarize(ReadSavedMap(world, nbd_test::kSecond));
    EXPECT_EQ(3 * kMiB / 512, summary.redirectedSectors);
    EXPECT_EQ(13 * kMiB / 512, summary.freeSectors);
    EXPECT_EQ(1u, summary.ranges);
    EXPECT_EQ(kExitOk, Run({"map", "2"}).exitCode);
    Do({{"unprotect", "2"}});
    Reboot();
    Do({{"swap", "remove", "2"}});
    EXPECT_NE(std::string::npos, Run({"map", "2"}).err.find("has no swap storage"));
    EXPECT_NE(std::string::npos, Run({"volumes"}).out.find("ntfs"));
}

TEST_F(CtlServed, NobodyServes) {
    control.reset();
    EXPECT_EQ(kExitNotRunning, Run({"status"}).exitCode);
    EXPECT_EQ(kExitNotRunning, RunWith(MakeWorld, {"--machine", scratch.File("none"), "status"}).exitCode);
    EXPECT_EQ(kExitUsage, RunWith(MakeWorld, {"--machine", std::string(200, 'x'), "status"}).exitCode);
}

// A server that answers each request with the same bytes and then ends the connection.
Result RunAgainst(const std::string& folder, const std::string& answer) {
    const std::string path = folder + "/" + tool::wire::kSocketName;
    sockaddr_un address;
    EXPECT_TRUE(tool::wire::MakeAddress(path, address));
    const posix::File listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(0, bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address));
    EXPECT_EQ(0, listen(listener.Get(), 1));
    std::thread server([&] {
        const posix::File client(accept(listener.Get(), nullptr, nullptr));
        tool::wire::RequestHeader request;
        EXPECT_TRUE(posix::ReceiveAll(client.Get(), &request, sizeof request));
        EXPECT_TRUE(posix::SendAll(client.Get(), answer.data(), answer.size()));
    });
    const Result result = RunWith(MakeWorld, {"--machine", folder, "status"});
    server.join();
    unlink(path.c_str());
    return result;
}

std::string Header(const tool::wire::ResponseHeader& header) {
    return std::string(reinterpret_cast<const char*>(&header), sizeof header);
}

TEST(CtlWire, AnswersThatBreakTheLayout) {
    const TestFolder folder;
    using tool::wire::kMagic;
    for (const auto& header :
         {Header({1, 0, 0, 0}), Header({kMagic, 0, 1, 0}), Header({kMagic, 0, 0, 0xFFFFFFFF})})
        EXPECT_NE(std::string::npos, RunAgainst(folder.Path(), header).err.find("answers with something else"));
    for (const std::string& cut : {std::string(), Header({kMagic, 0, 0, 4}), std::string("KVR")}) {
        const Result result = RunAgainst(folder.Path(), cut);
        EXPECT_EQ(kExitNotRunning, result.exitCode);
        EXPECT_NE(std::string::npos, result.err.find("ended the connection")) << result.err;
    }
    const Result refused = RunAgainst(folder.Path(), Header({kMagic, STATUS_ACCESS_DENIED, 0, 6}) + "not me");
    EXPECT_EQ(kExitDenied, refused.exitCode);
    EXPECT_EQ("kvrctl: not me\n", refused.err);
}

}  // namespace
