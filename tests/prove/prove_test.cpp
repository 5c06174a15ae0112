// `kvrhost prove` with a guest that plays no Windows, on a disk that looks like one with a Windows.
#include "tool/prove/prove.h"
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <cstdlib>
#include <unistd.h>
#include "tests/prove/proof_run.h"
#include "tool/inject/hive.h"

namespace {

using namespace fake_windows;
using namespace proof_run;

tool::ProveOptions StandInOptions(const TestFolder& folder, const std::string& image) {
    tool::ProveOptions options = Options(folder, image);
    options.emulator = KVR_STAND_IN;
    return options;
}

TEST(Prove, SeesWhatAGuestDoes) {
    const TestFolder source;
    const std::string image = Make(source, {});
    const Case cases[] = {
        {Mode::Honest, 0, 0, 10, "not one of "},
        {Mode::Fails, 3, 1, 10, "something must work"},
        {Mode::Lies, 4, 1, 4, "4 KiB differ, at byte "},
        {Mode::Idle, 6, 1, 6, "the merge reached the volume's own sectors"},
        {Mode::Hangs, 2, 1, 2,
         "did not power off in time and was ended; the last it said was 'the guest has booted'"},
        {Mode::Resets, 5, 1, 5, "restarted or powered off before the act was over"},
        {Mode::Panics, 2, 1, 2, "the emulator ended with 1; the last it said"},
        {Mode::Silent, 1, 1, 1, "it never answered: Windows did not start"},
        {Mode::Torn, 3, 1, 3, "it never answered"},
        {Mode::Stale, 3, 1, 3, "it never answered"},
    };
    for (const Case& one : cases) Expect(one, image, KVR_STAND_IN);
}

// A proof on a small file system of its own, which is full before its second act is over. 0 as it must be; -1
// where none can be mounted.
int ProveOnFullHost(const std::string& image) {
    const TestFolder folder;
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", folder.Path().c_str(), "tmpfs", 0, "size=300m") != 0)
        return -1;
    tool::ProveOptions options = StandInOptions(folder, image);
    options.seconds = 4;
    const std::string begun = options.folder + "/act-2.emulator.log", filler = folder.File("filler");
    const std::string fill = "until [ -e " + begun + " ]; do sleep 0.02; done; cat /dev/zero > " + filler;
    EXPECT_EQ(std::system(("(" + fill + ") 2> /dev/null &").c_str()), 0);
    const bool failed = tool::Prove(options) == tool::kExitFailed;
    return failed && CountOf(Rows(folder), "FAIL") == 1 &&
                   CountOf(Rows(folder), "there is no room left in") == 1 &&
                   CountOf(Rows(folder), "PASS  nobody wrote to it") == 1
               ? 0
               : 1;
}

TEST(Prove, SaysThatTheHostIsFull) {
    const TestFolder source;
    const std::string image = Make(source, {});
    Tell(image, Mode::Hangs, 2);
    const auto before = TestFolder::Bytes(image);
    const pid_t child = fork();
    if (child == 0) _exit(ProveOnFullHost(image) & 0xFF);
    int status = 0;
    waitpid(child, &status, 0);
    if (WEXITSTATUS(status) == 0xFF) GTEST_SKIP() << "no file system can be mounted";
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(TestFolder::Bytes(image) == before);
}

TEST(Prove, StartsTheProgramInTheCopyAlone) {
    const TestFolder folder;
    Key system = SystemHive();
    Below(system, "ControlSet001\\Control\\Session Manager").values = {
        {"BootExecute", 7, MultiSz({"autocheck autochk *"})}};
    const std::string image = Make(folder, {.system = system});
    tool::ProveOptions options = StandInOptions(folder, image);
    options.keepDisk = true;
    Tell(image, Mode::Silent, 1);
    EXPECT_EQ(tool::Prove(options), tool::kExitFailed);
    const std::string copy = folder.File("proof/disk.raw");
    const tool::Hive hive("SYSTEM", ReadFile(folder, copy, "/Windows/System32/config/SYSTEM"));
    const std::string control = "ControlSet001\\Control\\";
    EXPECT_EQ(hive.Get(control + "Session Manager", "BootExecute"),
              tool::List({"autocheck autochk *", "kvrprove"}));
    EXPECT_EQ(hive.Get(control + "CrashControl", "AutoReboot"), tool::Number(1));
    EXPECT_EQ(ReadFile(folder, copy, "/Windows/System32/kvrprove.exe"), DriverImage());
    EXPECT_TRUE(ReadFile(folder, image, "/Windows/System32/kvrprove.exe").empty());
    // Ten starts that nobody finishes are no reason to begin a repair.
    const tool::Hive store("BCD", ReadBootStore(folder, copy, false));
    for (const char* loader :
         {"{b2721d73-1db4-4c62-bf78-c548a880142d}", "{c2721d73-1db4-4c62-bf78-c548a880142d}"}) {
        const std::string elements = std::string("Objects\\") + loader + "\\Elements\\";
        EXPECT_EQ(store.Get(elements + "16000009", "Element"), tool::Binary({0}));
        EXPECT_EQ(store.Get(elements + "250000E0", "Element"), tool::Binary({1, 0, 0, 0, 0, 0, 0, 0}));
    }
}

// The boot loader writes there before any driver is loaded, wherever the folder of Windows lies.
TEST(Prove, LeavesOutWhatTheBootLoaderNotes) {
    const TestFolder folder;
    const std::string mark = "what the boot loader noted";
    Bytes status(8192, 1);
    std::copy(mark.begin(), mark.end(), status.begin());
    const std::string image =
        Make(folder, {.folders = {"/Other", "/Other/W", "/Other/W/System32", "/Other/W/System32/config",
                                  "/Other/W/System32/drivers"},
                      .further = {{"/Other/W/System32/config/SYSTEM",
                                   hive_maker::Maker::Make(SystemHive(), hive_maker::Lists::Lh)},
                                  {"/Other/W/bootstat.dat", status}}});
    const auto bytes = TestFolder::Bytes(image);
    const auto at = std::search(bytes.begin(), bytes.end(), mark.begin(), mark.end()) - bytes.begin();
    Tell(image, Mode::Lies, 4, static_cast<std::uint64_t>(at));
    tool::ProveOptions options = StandInOptions(folder, image);
    options.root = "Other\\W";
    tool::Prove(options);
    EXPECT_EQ(CountOf(Rows(folder), "PASS  the volume's own sectors are untouched"), 4u) << Rows(folder);
    EXPECT_EQ(CountOf(Rows(folder), "FAIL  the volume's own sectors are untouched"), 0u);
}

TEST(Prove, SaysWhyItCannotBeGivenAndLeavesNothing) {
    const TestFolder folder;
    const std::string image = Make(folder, {});
    const auto refused = [&](auto change, const std::string& why) {
        tool::ProveOptions options = StandInOptions(folder, image);
        change(options);
        const std::string said = Complaint([&] { tool::Prove(options); });
        EXPECT_NE(said.find(why), said.npos) << said;
        EXPECT_FALSE(std::filesystem::exists(folder.File("proof/disk.raw")));
    };
    refused([](auto& o) { o.emulator = "/no/such"; }, "is no program that can be started");
    std::filesystem::remove_all(folder.File("proof"));
    refused([](auto& o) { o.storageBytes = 1ull << 60; }, "there is no room for the copy");
    refused([](auto& o) { o.allowUnsigned = false, o.root = "Winnt"; }, "no volume of the disk has a Windows");
    refused([&](auto& o) { o.folder = folder.Path(); }, "exists already");
    EXPECT_FALSE(std::filesystem::exists(folder.File("proof"))) << "an empty folder is left";
}

}  // namespace
