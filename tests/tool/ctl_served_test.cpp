// The command line against the real driver of a served machine, through its control socket.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include "ctl_served.h"
#include "client/wire_channel.h"

namespace {

using namespace ctl;
using namespace ctl_test;

using nbd_test::kMiB;

// The server and the tool say the same, and what they say is what a client meets.
TEST_F(CtlServed, AVolumeThatIsToBeProtectedAndIsNotIsToldFirst) {
    Do({{"enable"}, {"protect", "2", "--anyway"}});
    EXPECT_EQ(kExitOk, Run({"status"}).exitCode) << "nothing of it holds yet";
    const struct {
        const char* hardening;
        const char* says;
        NTSTATUS write;
    } table[] = {
        {"on", "is to be protected and is not (storage: missing, make it); its writes are refused",
         STATUS_MEDIA_WRITE_PROTECTED},
        {"off",
         "is to be protected and is not (storage: missing, make it); its writes change the volume itself",
         STATUS_SUCCESS},
    };
    std::vector<std::uint8_t> bytes(512, 'w');
    for (const auto& row : table) {
        Do({{"hardening", row.hardening}});
        Reboot();
        const std::string sentence = std::string("HarddiskVolume2 ") + row.says;
        EXPECT_NE(std::string::npos, server->About().find("\nwarning: " + sentence)) << server->About();
        const Result status = Run({"status"});
        EXPECT_TRUE(status.out.starts_with("WARNING: HarddiskVolume2 is to be protected and is not (storage:"))
            << status.out;
        const Result metrics = Run({"status", "--openmetrics"});
        EXPECT_NE(std::string::npos, metrics.out.find("kvr_as_configured{machine=\"pc\"} 0\n")) << metrics.out;
        EXPECT_EQ(kExitFailed, status.exitCode);
        auto client = Connect("HarddiskVolume2");
        EXPECT_EQ(row.write, Transfer(client, nbd::Server::Action::Write, 40 * kMiB, bytes));
        server->Disconnect(std::move(client));
    }
}

// A machine of one ext4 volume, and what e2fsprogs' debugfs does to it while the machine is off.
class CtlServedExt : public CtlServed {
protected:
    CtlServedExt() : CtlServed(FileSystemKind::Ext, 1) {}
    void PowerOff() {
        control.reset();
        server.reset();
    }
    void WhileOff(const std::string& what) {
        PowerOff();
        const std::string image = "'" + Folder() + "/disk0.img?offset=1048576'";
        EXPECT_EQ(0, std::system(("debugfs -w -R '" + what + "' " + image + " 2>/dev/null").c_str()));
        PowerOn();
    }
    void ExpectRefused(const std::vector<std::string>& words, const std::string& why) {
        const Result result = Run(words);
        EXPECT_EQ(kExitFailed, result.exitCode);
        EXPECT_NE(result.err.npos, result.err.find(why)) << result.err;
    }
};

// What keeps storage from being made is told before anything goes: here a file system that was not unmounted.
TEST_F(CtlServedExt, AFileSystemThatMayNotBeChangedIsNamed) {
    WhileOff("ssv state 0");
    const std::string why = "can only be read: it was not";
    ExpectRefused({"swap", "make", "1", "16M"}, why);
    ExpectRefused({"swap", "remove", "1"}, why);
}

// Files that are gone, or no longer lie where the driver knows them, protect nothing.
TEST_F(CtlServedExt, StorageWithoutItsFilesIsNotWhole) {
    Do({{"swap", "make", "1", "16M"}, {"protect", "1", "--dry-run"}});
    EXPECT_EQ("", Run({"protect", "1", "--dry-run"}).err);
    WhileOff("ln kvr.MAP moved");
    EXPECT_EQ("", Run({"protect", "1", "--dry-run"}).err) << "not loaded yet, and whole";
    WhileOff("unlink kvr.SWP");
    ExpectRefused({"protect", "1"}, "has lost its storage files: kvr.SWP or kvr.MAP was deleted or renamed");
    WhileOff("ln moved kvr.SWP");
    ExpectRefused({"protect", "1"}, "has lost its storage files: 16 MiB lie elsewhere now");
    auto client = Connect("HarddiskVolume1");
    EXPECT_EQ(kExitOk, Run({"protect", "1"}).exitCode) << "the boot will find it; nobody can look now";
    server->Disconnect(std::move(client));
}

// The zone is the one that the server's last boot found, whatever the tool's own is.
TEST_F(CtlServed, DatesAreTheMachinesOwn) {
    const auto in = [](const char* zone) { setenv("TZ", zone, 1), tzset(); };
    in("<+05>-5");
    Reboot();
    in("UTC0");
    EXPECT_EQ(300, world.MinutesEast());
    unsetenv("TZ"), tzset();
}

// On the second volume: the storage lies elsewhere, or the orders below are refused.
constexpr std::uint64_t kUnused = 45 * kMiB;

// By what the disks held before and hold behind it, whatever was ordered; and what finds no room is told so.
TEST_F(CtlServed, ABootTellsWhatItDidWithTheChanges) {
    const auto write = [&](std::uint64_t mebibytes, std::uint64_t at = kUnused) {
        auto client = Connect("HarddiskVolume2");
        std::vector<std::uint8_t> bytes(mebibytes * kMiB, 'w');
        const NTSTATUS status = Transfer(client, nbd::Server::Action::Write, at, bytes);
        server->Disconnect(std::move(client));
        return status;
    };
    Do({{"swap", "make", "2", "64M"}, {"enable"}, {"protect", "2", "--at-boot", "keep"}});
    Reboot();
    const struct {
        std::uint64_t mebibytes;  // written before
        std::vector<std::string> order;
        const char* deed;
        const char* warning = "";
    } table[] = {
        {3, {}, "kept 3145728 1 HarddiskVolume2: kept 3 MiB in 1 range\n"},
        {3, {"merge", "2"}, "merged 3145728 1 HarddiskVolume2: merged 3 MiB in 1 range\n"},
        {0, {}, "nothing 0 0 HarddiskVolume2: had no changes\n"},
        {14,
         {"merge", "2", "--anyway"},
         "kept 14680064 1 HarddiskVolume2: was NOT merged, kept 14 MiB in 1 range",
         "warning: HarddiskVolume2: was NOT merged, kept 14 MiB in 1 range (a merge needs more than 51 MiB of "
         "free "
         "storage, there are 50 MiB)\n"},
        {14,
         {"discard", "2", "--drop-changes"},
         "dropped 14680064 1 HarddiskVolume2: dropped 14 MiB in 1 range\n"},
        {14,
         {"unprotect", "2", "--drop-changes"},
         "dropped 14680064 1 HarddiskVolume2: dropped 14 MiB in 1 range, no longer protected\n"},
    };
    for (const auto& row : table) {
        if (row.mebibytes != 0) {
            EXPECT_EQ(STATUS_SUCCESS, write(row.mebibytes));
        }
        if (!row.order.empty()) Do({row.order});
        Reboot();
        const std::string about = server->About() + "\n";
        EXPECT_NE(std::string::npos, about.find(std::string("\nboot: HarddiskVolume2 ") + row.deed)) << about;
        EXPECT_NE(std::string::npos, about.find(row.warning)) << about;
        EXPECT_EQ(*row.warning == 0, about.find("warning: ") == about.npos) << about;
    }
    Do({{"protect", "2"}});
    Reboot();
    EXPECT_EQ(STATUS_DISK_FULL, write(70, 0))
        << "a virtual machine waits then, and does not take its disk for broken";
    EXPECT_NE(std::string::npos, Run({"status"}).out.find("FULL"));
    EXPECT_EQ(kExitFailed, Run({"status", "--check"}).exitCode);
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

TEST(CtlWire, AnswersThatBreakTheLayout) {
    const TestFolder folder;
    using tool::wire::kMagic;
    const auto header = [](const tool::wire::ResponseHeader& fields) {
        return std::string(reinterpret_cast<const char*>(&fields), sizeof fields);
    };
    const struct {
        std::string answer;
        int exitCode;
        const char* says;
    } table[] = {
        {header({1, 0, 0, 0}), kExitFailed, "answers with something else"},
        {header({kMagic, 0, 1, 0}), kExitFailed, "answers with something else"},
        {header({kMagic, 0, 0, 0xFFFFFFFF}), kExitFailed, "answers with something else"},
        {"", kExitNotRunning, "ended the connection"},
        {header({kMagic, 0, 0, 4}), kExitNotRunning, "ended the connection"},
        {header({kMagic, STATUS_ACCESS_DENIED, 0, 6}) + "not me", kExitDenied, "kvrctl: not me\n"},
    };
    for (const auto& row : table) {
        const Result result = RunAgainst(folder.Path(), row.answer);
        EXPECT_EQ(row.exitCode, result.exitCode);
        EXPECT_NE(std::string::npos, result.err.find(row.says)) << result.err;
    }
}

}  // namespace
