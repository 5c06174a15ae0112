// The command line on a made-up machine: what it prints, refuses and asks of the driver.
#include <gtest/gtest.h>
#include <fstream>
#include <nlohmann/json.hpp>
#include "ctl_support.h"
#include "scratch_folder.h"
#include "tool/kvrctl/date.h"
#include "tool/text.h"
#include "tool/kvrctl/unicode.h"

namespace {

using namespace ctl;
using namespace ctl_test;

constexpr char16_t kSystem[] = u"\\Device\\HarddiskVolume1";
constexpr char16_t kData[] = u"\\Device\\HarddiskVolume2";
constexpr char16_t kStick[] = u"\\Device\\HarddiskVolume13";
constexpr std::int64_t kMiB = 1024 * 1024;

Machine Office() {
    Machine machine;
    machine.enabled = true;
    machine.AddFixed(u"\\Device\\Harddisk0\\DR0");
    machine.AddFixed(kSystem);
    machine.AddFixed(kData, 2, 512 * kMiB, 511 * kMiB + 1, 2);
    machine.AddFixed(u"\\Device\\HarddiskVolume3", 3, 100, 1, 5);
    machine.AddRemovable(kStick, 1);
    machine.config = u"[Global]\nProtection=1\n";
    for (const char16_t* name : {kSystem, kData}) {
        VolumeFacts facts;
        facts.bytes = 1000 * kMiB, facts.freeBytes = 700 * kMiB, facts.sectorBytes = 512;
        facts.fileSystem = FileSystemKind::Ntfs;
        machine.facts[name] = facts;
    }
    return machine;
}

TEST(CtlCommands, StatusInWords) {
    Machine machine = Office();
    EXPECT_EQ(
        "Protection is on.\n\n"
        "VOLUME            KIND       STATE                 SWAP       USED       FREE"
        "                                   STORAGE\n"
        "HarddiskVolume1   fixed      not protected         -          -          -"
        "                                      none\n"
        "HarddiskVolume2   fixed      protected             512 MiB    511.0 MiB  1.0 MiB   "
        "[###################.] 99 %  ready\n"
        "HarddiskVolume3   fixed      protected and hidden  100 bytes  1 bytes    99 bytes  "
        "[#...................] 1 %   files used by another program\n"
        "HarddiskVolume13  removable  protected\n",
        RunOn(machine, {"status"}).out);
    const auto json = nlohmann::json::parse(RunOn(machine, {"status", "--json"}).out);
    EXPECT_TRUE(json["protection"]);
    EXPECT_EQ(4u, json["volumes"].size());
    EXPECT_EQ(511 * kMiB + 1, json["volumes"][1]["swap"]["usedBytes"]);
    EXPECT_EQ("HarddiskVolume1\nHarddiskVolume2\nHarddiskVolume3\nHarddiskVolume13\n",
              RunOn(machine, {"volumes", "--names"}).out);
    EXPECT_EQ(
        3u,
        nlohmann::json::parse("[" + RunOn(machine, {"watch", "--json", "--count", "1"}).out + "]")[0].size() +
            1);
    unsigned pauses = 0;
    EXPECT_EQ(kExitOk, RunOn(machine, {"watch"}, [&] { return ++pauses < 3; }).exitCode);
    EXPECT_EQ(3u, pauses);
}

TEST(CtlCommands, PlansOfTheNextBoot) {
    Machine machine = Office();
    machine.config =
        u"[Global]\nProtection=1\nRVAccessMode=2\n[FV "
        u"1]\nID=\\Device\\HarddiskVolume2\nProtectionMode=1\nBootMode=1\n"
        u"NextDiscardTS=203001011800\n";
    const std::string out = RunOn(machine, {"volumes"}).out;
    EXPECT_NE(std::string::npos, out.find("protected; changes are kept until 2030-01-01 18:00")) << out;
    EXPECT_NE(std::string::npos, out.find("protected and hidden")) << out;
}

TEST(CtlCommands, VolumesByNameNumberAndMistake) {
    Machine machine = Office();
    for (const char* name : {"2", "harddiskvolume2", "\\device\\HarddiskVolume2"}) {
        const Result result = RunOn(machine, {"protect", name, "--dry-run"});
        EXPECT_NE(std::string::npos, result.out.find("+ ID = \\Device\\HarddiskVolume2")) << name << result.err;
    }
    const Result unknown = RunOn(machine, {"protect", "7"});
    EXPECT_EQ(kExitUsage, unknown.exitCode);
    EXPECT_EQ(
        "kvrctl: there is no volume '7'; the volumes are: \\Device\\HarddiskVolume1, "
        "\\Device\\HarddiskVolume2, "
        "\\Device\\HarddiskVolume3, \\Device\\HarddiskVolume13\n",
        unknown.err);
    machine.AddFixed(u"\\Device\\Other2");
    EXPECT_NE(std::string::npos, RunOn(machine, {"protect", "2"}).err.find("can mean several volumes"));
    EXPECT_TRUE(machine.changes.empty());
}

TEST(CtlCommands, EditsShowTheChangeAndStoreIt) {
    Machine machine = Office();
    const Result dry = RunOn(machine, {"removable", "hide", "13", "--dry-run"});
    EXPECT_EQ(
        "  [Global]\n  Protection=1\n+ \n+ [RV 1]\n+ ID = \\Device\\HarddiskVolume13\n+ AccessMode = 2\n"
        "Nothing was stored (--dry-run).\n",
        dry.out);
    EXPECT_TRUE(machine.changes.empty());
    const Result stored = RunOn(machine, {"protect", "2", "--until", "2090-01-31 18:00"});
    EXPECT_NE(std::string::npos, stored.out.find("+ NextDiscardTS = 209001311800\n"));
    EXPECT_NE(std::string::npos, stored.out.find("Stored. It holds from the next boot on.\n"));
    EXPECT_EQ("", stored.err);
    EXPECT_EQ(std::vector<std::uint32_t>{IOCTL_KVR_SET_CONFIG}, machine.changes);
    EXPECT_EQ(kExitOk, RunOn(machine, {"merge", "2"}).exitCode);
    EXPECT_EQ(kExitOk, RunOn(machine, {"removable", "protect"}).exitCode);
    const Result disabled = RunOn(machine, {"disable"});
    EXPECT_NE(std::string::npos, disabled.err.find("the next boot will merge its changes")) << disabled.err;
    EXPECT_TRUE(machine.config.starts_with(u"[Global]\nProtection=0\nRVAccessMode = 1\n"))
        << ToUtf8(machine.config);
    EXPECT_NE(std::string::npos, RunOn(machine, {"protect", "1"}).err.find("no usable swap storage"));
    EXPECT_EQ("The configuration says so already; nothing was changed.\n", RunOn(machine, {"disable"}).out);
    EXPECT_EQ(kExitFailed, RunOn(machine, {"protect", "13"}).exitCode);
    EXPECT_EQ(kExitFailed, RunOn(machine, {"removable", "hide", "2"}).exitCode);
}

TEST(CtlCommands, ConfigTextInAndOut) {
    Machine machine = Office();
    const TestFolder folder;
    const std::string file = folder.File("text");
    const auto put = [&](const std::string& bytes) { std::ofstream(file, std::ios::binary) << bytes; };
    put("\xEF\xBB\xBF; caf\xC3\xA9\r\n[Global]\r\nProtection=0\r\n");
    EXPECT_EQ(kExitOk, RunOn(machine, {"config", "set", file}).exitCode);
    EXPECT_EQ("; caf\xC3\xA9\r\n[Global]\r\nProtection=0\r\n", RunOn(machine, {"config", "get"}).out);
    put(std::string("\xFF\xFE;\0", 4));
    EXPECT_EQ(kExitOk, RunOn(machine, {"config", "set", file}).exitCode);
    EXPECT_EQ(";", RunOn(machine, {"config", "get"}).out);
    put("[FV1]\n");
    const Result refused = RunOn(machine, {"config", "set", file});
    EXPECT_EQ(kExitFailed, refused.exitCode);
    EXPECT_NE(std::string::npos, refused.err.find(file + ":1: error: '[FV1]' is no section head"));
    EXPECT_EQ(";", RunOn(machine, {"config", "get"}).out);
    EXPECT_EQ(kExitFailed, RunOn(machine, {"config", "check", file}).exitCode);
    EXPECT_EQ(kExitOk, RunOn(machine, {"config", "set", file, "--force"}).exitCode);
    EXPECT_EQ("[FV1]\n", RunOn(machine, {"config", "get"}).out);
    for (const std::string& bytes : {std::string("\xFF\xFE;", 3), std::string("\xFF\x41")}) {
        put(bytes);
        EXPECT_EQ(kExitFailed, RunOn(machine, {"config", "set", file}).exitCode);
    }
    put(std::string(5000, 'x'));
    EXPECT_EQ(kExitFailed, RunOn(machine, {"config", "set", file}).exitCode);
    machine.refusals[IOCTL_KVR_GET_CONFIG] = {STATUS_NO_SUCH_FILE, {}};
    EXPECT_EQ("kvrctl: there is no configuration yet\n", RunOn(machine, {"config", "get"}).err);
    EXPECT_EQ(kExitOk, RunOn(machine, {"enable"}).exitCode);
}

// Said before the driver is asked for anything.
TEST(CtlCommands, SwapRefusalsBeforeAnythingStarts) {
    Machine machine = Office();
    const auto refusal = [&](const std::vector<std::string>& words) {
        const Result result = RunOn(machine, words);
        EXPECT_NE(kExitOk, result.exitCode);
        EXPECT_TRUE(machine.changes.empty());
        return result.err;
    };
    const auto says = [](const std::string& text, const char* words) {
        return text.find(words) != text.npos ? testing::AssertionSuccess()
                                             : testing::AssertionFailure() << text;
    };
    EXPECT_TRUE(
        says(refusal({"swap", "make", "1", "698M"}), "has 700 MiB free; the storage and its map need 715 MiB"));
    EXPECT_TRUE(says(refusal({"swap", "make", "2", "1M"}), "is protected"));
    EXPECT_TRUE(says(refusal({"swap", "remove", "2"}), "is protected"));
    EXPECT_TRUE(says(refusal({"swap", "make", "13", "1M"}), "removable"));
    EXPECT_TRUE(says(refusal({"swap", "make", "1", "200000G"}), "at most"));
    machine.facts[kSystem].clients = "nbdcopy (pid 1)";
    EXPECT_TRUE(says(refusal({"swap", "make", "1", "1M"}), "in use by nbdcopy (pid 1)"));
    machine.facts[kSystem].clients.clear();
    machine.facts[kSystem].fileSystem = FileSystemKind::None;
    EXPECT_TRUE(says(refusal({"swap", "make", "1", "1M"}), "no file system"));
    machine.fixed[1].SwapStatus = 1;
    EXPECT_TRUE(says(refusal({"swap", "make", "1", "1M"}), "already"));
}

TEST(CtlCommands, SwapMakeTellsHowItEnded) {
    Machine machine = Office();
    const std::vector<std::string> make = {"swap", "make", "1", "1.5M"};
    EXPECT_NE(std::string::npos, RunOn(machine, make).err.find("not finished: 0 bytes of 2 MiB"));
    machine.fixed[1].SwapTotalBytes = 1 * kMiB;
    machine.registry[kSystem] = Bytes(8);
    EXPECT_NE(std::string::npos, RunOn(machine, make).err.find("has 1 MiB instead of 2 MiB"));
    machine.fixed[1].SwapTotalBytes = 2 * kMiB;
    EXPECT_EQ(kExitOk, RunOn(machine, make).exitCode);
    EXPECT_EQ(std::vector<std::uint32_t>(3, IOCTL_KVR_ALLOCATE_SWAP), machine.changes);
}

// An interrupt wins, and what was begun is ended, although another program holds the device just then.
TEST(CtlCommands, CtrlCEndsWhatWasBegun) {
    Machine machine = Office();
    const auto interrupted = [] { return false; };
    machine.onChange = [&](std::uint32_t code) {
        machine.fixed[1].SwapStatus = code == IOCTL_KVR_ALLOCATE_SWAP;
        machine.busyOpens = 3;
    };
    EXPECT_EQ(kExitStopped, RunOn(machine, {"swap", "make", "1", "1M"}, interrupted).exitCode);
    EXPECT_EQ((std::vector<std::uint32_t>{IOCTL_KVR_ALLOCATE_SWAP, IOCTL_KVR_STOP_SWAP_THREAD}),
              machine.changes);
    machine.busyOpens = 1000;
    EXPECT_EQ(kExitStopped, RunOn(machine, {"status"}, interrupted).exitCode);
    EXPECT_EQ(kExitOk, RunOn(machine, {"watch"}, interrupted).exitCode);
}

TEST(CtlCommands, FailuresAreOneLineWithAnExitCode) {
    const struct {
        std::vector<std::string> words;
        std::uint32_t code;
        Answer answer;
        int exitCode;
        const char* says;
    } table[] = {
        {{"swap", "make", "1", "1M"},
         IOCTL_KVR_ALLOCATE_SWAP,
         {STATUS_INVALID_PARAMETER, {}},
         kExitFailed,
         "holds the configuration"},
        {{"swap", "make", "1", "1M"},
         IOCTL_KVR_ALLOCATE_SWAP,
         {STATUS_FILE_LOCK_CONFLICT, {}},
         kExitBusy,
         "swap stop"},
        {{"swap", "remove", "1"},
         IOCTL_KVR_REMOVE_SWAP,
         {STATUS_DEVICE_BUSY, "HarddiskVolume1 is in use: x"},
         kExitBusy,
         "in use: x"},
        {{"enable"}, IOCTL_KVR_SET_CONFIG, {STATUS_NO_SUCH_FILE, {}}, kExitOk, "nothing was changed"},
        {{"disable"}, IOCTL_KVR_SET_CONFIG, {STATUS_NO_SUCH_FILE, {}}, kExitFailed, "system32\\drivers"},
        {{"disable"}, IOCTL_KVR_SET_CONFIG, {STATUS_ACCESS_DENIED, {}}, kExitDenied, "administrator"},
        {{"status"}, IOCTL_KVR_GET_ENABLED, {STATUS_INVALID_DEVICE_REQUEST, {}}, kExitFailed, "stands by"},
        {{"status"}, IOCTL_KVR_GET_ENABLED, {KvrStatus(0xC0001234), {}}, kExitFailed, "0xC0001234"},
    };
    for (const auto& row : table) {
        Machine machine = Office();
        machine.refusals[row.code] = row.answer;
        const Result result = RunOn(machine, row.words);
        const std::string said = row.exitCode == kExitOk ? "nothing was changed" : result.err;
        EXPECT_EQ(row.exitCode, result.exitCode) << result.err;
        EXPECT_NE(std::string::npos, said.find(row.says)) << result.err;
        EXPECT_LE(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
    Machine machine = Office();
    machine.busyOpens = 3;
    EXPECT_EQ(kExitOk, RunOn(machine, {"status"}).exitCode);
    machine.busyOpens = 1000;
    EXPECT_EQ(kExitBusy, RunOn(machine, {"status"}).exitCode);
    machine.exitOfOpen = kExitNotRunning;
    EXPECT_EQ(kExitNotRunning, RunOn(machine, {"status"}).exitCode);
}

TEST(CtlCommands, UsageMistakesAndHelp) {
    Machine machine = Office();
    const std::vector<std::vector<std::string>> mistakes = {
        {},
        {"nonsense"},
        {"status", "x"},
        {"protect"},
        {"protect", "1", "--at-boot", "never"},
        {"swap"},
        {"swap", "make", "1"},
        {"swap", "make", "1", "2X"},
        {"protect", "1", "--until", "soon"},
        {"protect", "1", "--until", "2020-01-01 00:00"},
        {"protect", "1", "--at-boot", "discard", "--until", "2090-01-01 00:00"}};
    for (const auto& words : mistakes) {
        const Result result = RunOn(machine, words);
        EXPECT_EQ(kExitUsage, result.exitCode) << testing::PrintToString(words) << result.err;
        EXPECT_EQ(1, std::count(result.err.begin(), result.err.end(), '\n')) << result.err;
    }
    for (const char* command : {"status", "watch", "volumes", "map", "debug", "protect", "unprotect", "discard",
                                "merge", "removable", "enable", "disable", "config", "swap"}) {
        const Result help = RunOn(machine, {command, "--help"});
        EXPECT_EQ(kExitOk, help.exitCode);
        EXPECT_NE(std::string::npos, help.out.find("Examples:\n  kvrctl " + std::string(command))) << command;
    }
    EXPECT_TRUE(machine.changes.empty());
}

TEST(CtlCommands, SizesAndDates) {
    const struct {
        const char* text;
        std::int64_t bytes;  // 0: refused
    } sizes[] = {{"1", 1},
                 {"2G", std::int64_t{2} << 30},
                 {"512M", 512 * kMiB},
                 {"1.5GiB", 3 * (std::int64_t{1} << 29)},
                 {"64 kB", 65536},
                 {"0.1k", 102},
                 {"3 bytes", 3},
                 {"8191P", 0},
                 {"8388607T", std::int64_t{8388607} << 40},
                 {"8388608T", 0},
                 {"9223372036854775807", INT64_MAX},
                 {"9223372036854775808", 0},
                 {"", 0},
                 {"0", 0},
                 {"-1", 0},
                 {"G", 0},
                 {"1.", 0},
                 {"1.5", 0},
                 {".5G", 0},
                 {"1GG", 0},
                 {"1 G x", 0},
                 {"1e3", 0}};
    for (const auto& row : sizes) {
        if (row.bytes == 0)
            EXPECT_THROW(ParseSize(row.text), Failure) << row.text;
        else
            EXPECT_EQ(row.bytes, ParseSize(row.text)) << row.text;
    }
    EXPECT_EQ(u"209902282359", ParseDate("2099-02-28 23:59"));
    EXPECT_EQ("2099-02-28 23:59", DateText(ParseDate("2099-02-28T23:59")));
    for (const char* bad :
         {"2099-02-29 00:00", "2099-2-28 00:00", "2099-02-28", "2099-02-28 24:00", "2001-01-01 00:00"})
        EXPECT_THROW(ParseDate(bad), Failure) << bad;
}

}  // namespace
