// The command line against the real driver of a served machine, through its control socket.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include "ctl_support.h"
#include "nbd/control_server.h"
#include "nbd/folder_maker.h"
#include "scratch_folder.h"
#include "platform/host/sync/thread.h"
#include "tool/kvrctl/saved_map.h"
#include "tool/kvrctl/world_hosted.h"

namespace {

using namespace ctl;
using namespace ctl_test;

constexpr std::uint64_t kMiB = 1024 * 1024;

class CtlServed : public testing::Test {
protected:
    void SetUp() override {
        nbd::NewMachine machine;
        machine.path = folder_.File("pc");
        machine.size = 130 * kMiB;
        machine.volumes = 2;
        nbd::MakeMachine(machine);
        nbd::MachineFolder folder = nbd::MachineFolder::Read(machine.path);
        nbd::FolderLock lock(folder);
        server_ = std::make_unique<nbd::Server>(std::move(folder), std::move(lock));
        server_->Start();
        control_ = std::make_unique<nbd::ControlServer>(*server_, [] {});
    }
    void TearDown() override {
        control_.reset();
        server_.reset();
    }
    Result Run(std::vector<std::string> words, const std::function<bool()>& onPause = {}) {
        words.insert(words.begin(), {"--machine", folder_.File("pc")});
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
    void Reboot() {
        std::string why;
        ASSERT_TRUE(server_->Reboot(why)) << why;
    }
    void Write(std::uint64_t offset, std::uint64_t length) {
        auto client = server_->Connect({false, 2}, "a test");
        std::vector<char> bytes(length, 'w');
        EXPECT_EQ(STATUS_SUCCESS,
                  server_->Transfer(*client, nbd::Server::Action::Write, offset, length, bytes.data()));
        server_->Disconnect(std::move(client));
    }

    const TestFolder folder_;
    std::unique_ptr<nbd::Server> server_;
    std::unique_ptr<nbd::ControlServer> control_;
};

TEST_F(CtlServed, FromNothingToAProtectedVolumeAndBack) {
    EXPECT_TRUE(Run({"status"}).out.starts_with("Protection is off"));
    EXPECT_EQ("kvrctl: there is no configuration yet\n", Run({"config", "get"}).err);
    Do({{"swap", "make", "2", "16M"},
        {"enable"},
        {"protect", "2", "--at-boot", "keep"},
        {"config", "check"},
        {"debug"}});
    Reboot();
    Write(40 * kMiB, 3 * kMiB);
    const std::string status = Run({"status"}).out;
    EXPECT_NE(std::string::npos, status.find("HarddiskVolume2     fixed  protected      16 MiB  3 MiB  13 MiB"))
        << status;
    EXPECT_NE(std::string::npos, Run({"swap", "make", "2", "1M"}).err.find("is protected"));
    Reboot();
    HostedWorld world(folder_.File("pc"));
    const MapSummary summary = Summarize(ReadSavedMap(world, u"\\Device\\HarddiskVolume2"));
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

TEST_F(CtlServed, CtrlCStopsTheDriverAndItCleansUp) {
    host::ThreadGate gate;
    const Result stopped = Run({"swap", "make", "2", "48M"}, [&] {
        gate.ReleaseAll();
        return false;
    });
    EXPECT_EQ(kExitStopped, stopped.exitCode);
    EXPECT_NE(std::string::npos, stopped.err.find("what was made is removed again")) << stopped.err;
    const std::string status = Run({"status"}).out;
    EXPECT_NE(std::string::npos, status.find("HarddiskVolume2     fixed  not protected  -")) << status;
    EXPECT_EQ("No storage was being made or removed.\n", Run({"swap", "stop"}).out);
}

TEST_F(CtlServed, OthersInTheWay) {
    {
        auto client = server_->Connect({false, 2}, "a client (pid 7)");
        const Result result = Run({"swap", "make", "2", "1M"});
        EXPECT_EQ(kExitBusy, result.exitCode);
        EXPECT_NE(std::string::npos, result.err.find("a client (pid 7)")) << result.err;
        server_->Disconnect(std::move(client));
    }
    {
        HostedWorld other(folder_.File("pc"));
        const auto driver = other.OpenDriver(Access::Read);
        EXPECT_EQ(kExitBusy, Run({"status"}).exitCode);
    }
    EXPECT_EQ(kExitOk, Run({"status"}).exitCode);
    control_.reset();
    EXPECT_EQ(kExitNotRunning, Run({"status"}).exitCode);
    EXPECT_EQ(kExitNotRunning, RunWith(MakeWorld, {"--machine", folder_.File("none"), "status"}).exitCode);
    EXPECT_EQ(kExitUsage, RunWith(MakeWorld, {"--machine", std::string(200, 'x'), "status"}).exitCode);
}

// A server that answers each request with the same bytes and then ends the connection.
Result RunAgainst(const std::string& folder, const std::string& answer) {
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = folder + "/" + tool::wire::kSocketName;
    std::copy(path.begin(), path.end(), address.sun_path);
    EXPECT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address));
    EXPECT_EQ(0, listen(listener, 1));
    std::thread server([&] {
        const int client = accept(listener, nullptr, nullptr);
        tool::wire::RequestHeader request;
        EXPECT_EQ(static_cast<ssize_t>(sizeof request), recv(client, &request, sizeof request, MSG_WAITALL));
        EXPECT_EQ(static_cast<ssize_t>(answer.size()),
                  send(client, answer.data(), answer.size(), MSG_NOSIGNAL));
        close(client);
    });
    const Result result = RunWith(MakeWorld, {"--machine", folder, "status"});
    server.join();
    close(listener);
    unlink(path.c_str());
    return result;
}

std::string Header(const tool::wire::ResponseHeader& header) {
    return std::string(reinterpret_cast<const char*>(&header), sizeof header);
}

TEST(CtlWire, AnswersThatBreakTheLayout) {
    const TestFolder folder;
    using tool::wire::kMagic;
    const std::string strange = "answers with something else";
    EXPECT_NE(std::string::npos, RunAgainst(folder.Path(), Header({1, 0, 0, 0})).err.find(strange));
    EXPECT_NE(std::string::npos, RunAgainst(folder.Path(), Header({kMagic, 0, 1, 0})).err.find(strange));
    EXPECT_NE(std::string::npos,
              RunAgainst(folder.Path(), Header({kMagic, 0, 0, 0xFFFFFFFF})).err.find(strange));
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
