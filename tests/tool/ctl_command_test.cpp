// The command line on a made-up machine: what it prints, refuses and asks of the driver.
#include <gtest/gtest.h>
#include <fstream>
#include <iterator>
#include <sstream>
#include <nlohmann/json.hpp>
#include "ctl_support.h"
#include "tests/support/scratch_folder.h"
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

// Cut at the blanks.
std::vector<std::string> Words(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

std::string Unfolded(std::string text) {
    for (std::size_t fold; (fold = text.find("\n    ")) != text.npos;) text.replace(fold, 5, " ");
    return text;
}

TEST(CtlCommands, StatusInWords) {
    Machine machine = Office();
    machine.config +=
        u"RVAccessMode=1\n[FV 1]\nID=\\Device\\HarddiskVolume2\nProtectionMode=1\nBootMode=1\n"
        u"NextDiscardTS=203001011800\nBootAction=2\n";
    const std::string text = RunOn(machine, {"status"}).out;
    EXPECT_EQ(
        "WARNING: HarddiskVolume2 is to be merged and will not be: a merge needs more\n"
        "  than 51 MiB of free storage.\n"
        "WARNING: HarddiskVolume2 is FULL: writes find no room.\n"
        "WARNING: HarddiskVolume3 is FULL: writes find no room.\n"
        "Protection is on.\nHardening is off for the next boot, and now if it was so at the last.\n\n"
        "VOLUME            NOW            NEXT BOOT       STORAGE    USED   USABLE\n"
        "HarddiskVolume1   not protected  not protected   -          -      -\n"
        "HarddiskVolume2   protected      merges changes  512 MiB    100 %  FULL\n"
        "  [####################] 511.0 MiB used, FULL, writes find no room\n"
        "  merge at the next boot, once; then kept until 2030-01-01 18:00 UTC\n"
        "HarddiskVolume3   hidden         not protected   100 bytes  100 %  none\n"
        "  not protected from the next boot on\n"
        "  storage: files cannot be held, used by another program or gone\n"
        "HarddiskVolume13  read-only      read-only       -          -      -\n",
        text);
    machine.notes.warnings = {std::string(70, 'w') + " " + std::string(90, 'x')};
    machine.facts[kData].clients = std::string(30, 'a') + " " + std::string(50, 'b') + " on export disk0";
    std::istringstream lines(RunOn(machine, {"status"}).out);
    for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 80u) << line;
    const auto json = nlohmann::json::parse(RunOn(machine, {"status", "--json"}).out);
    EXPECT_TRUE(json["protection"]["now"]);
    EXPECT_EQ(4u, json["volumes"].size());
    EXPECT_EQ("full", json["volumes"][1]["swap"]["status"]);
    EXPECT_EQ(511 * kMiB + 1, json["volumes"][1]["swap"]["usedBytes"]);
    EXPECT_EQ("HarddiskVolume1\nHarddiskVolume2\nHarddiskVolume3\nHarddiskVolume13\n",
              RunOn(machine, {"volumes", "--names"}).out);
    EXPECT_EQ(json["volumes"],
              nlohmann::json::parse(RunOn(machine, {"watch", "--json", "--count", "1"}).out)["volumes"]);
    unsigned pauses = 0;
    EXPECT_EQ(kExitOk, RunOn(machine, {"watch"}, [&] { return ++pauses < 3; }).exitCode);
    EXPECT_EQ(3u, pauses);
}

// What a command says and how it ends; a failure is one line, and nothing is changed before it is certain.
TEST(CtlCommands, WhatIsSaidAndHowItEnds) {
    using Given = std::function<void(Machine&)>;
    const auto refused = [](std::uint32_t code, Status status, const char* text = "") -> Given {
        return [=](Machine& machine) { machine.refusals[code] = {status, text}; };
    };
    // The configuration protects volume 2.
    const auto troubled = [](std::uint32_t swap, std::optional<bool> hardening,
                             std::uint32_t state = 0) -> Given {
        return [=](Machine& machine) {
            machine.config =
                u"[Global]\nProtection=1\n[FV 1]\nID=\\Device\\HarddiskVolume2\nProtectionMode=1\n";
            machine.fixed[2].SwapStatus = swap, machine.fixed[2].State = state;
            machine.hardening = hardening;
        };
    };
    // ... and its 512 MiB of storage hold so much.
    const auto filled = [&](std::int64_t mebibytes) -> Given {
        return [=](Machine& machine) {
            troubled(2, true, 2)(machine);
            machine.fixed[2].SwapUsedBytes = mebibytes * kMiB;
            machine.fixed[3].SwapStatus = 2;
        };
    };
    const auto whole = [](std::int64_t bytes) -> Given {
        return [=](Machine& machine) {
            machine.fixed[1].SwapTotalBytes = bytes;
            machine.registry[kSystem] = Bytes(8);
        };
    };
    const struct {
        std::string words;
        int exitCode;
        const char* says;
        Given given = [](Machine&) {};
    } table[] = {
        {"protect 2 --dry-run", kExitOk, "+ ID = \\Device\\HarddiskVolume2"},
        {"protect harddiskvolume2 --dry-run", kExitOk, "+ ID = \\Device\\HarddiskVolume2"},
        {"protect 7", kExitUsage,
         "no volume '7'; the volumes are: \\Device\\HarddiskVolume1, \\Device\\HarddiskVolume2, "
         "\\Device\\HarddiskVolume3, \\Device\\HarddiskVolume13\n"},
        {"protect 2", kExitUsage, "can mean several volumes",
         [](Machine& m) { m.AddFixed(u"\\Device\\Other2"); }},
        {"protect 13", kExitFailed, "is removable"},
        {"removable hide 2", kExitFailed, "is a fixed volume"},
        // Swap storage: what is known before the driver is asked,
        {"swap make 1 698M", kExitFailed, "has 700 MiB free; the storage and its map need 715 MiB"},
        {"swap make 2 64M", kExitFailed, "is protected"},
        {"swap remove 2", kExitFailed, "is protected"},
        {"swap make 13 64M", kExitFailed, "removable"},
        {"swap make 1 100", kExitUsage, "'100' means 100 bytes; for megabytes write 100M"},
        {"swap make 1 100k", kExitUsage,
         "100 KiB of storage are of no use: every write fails in the last 8 MiB"},
        {"swap make 1 8M", kExitUsage, "a merge needs more than 51 MiB"},
        {"swap make 1 64M", kExitFailed,
         "holds 1 MiB of changes, which would be dropped now; say --drop-changes",
         [](Machine& m) { m.fixed[1].SwapUsedBytes = kMiB; }},
        {"swap remove 1", kExitFailed, "say --drop-changes",
         [](Machine& m) { m.fixed[1].SwapUsedBytes = kMiB; }},
        {"swap make 1 200000G", kExitFailed, "at most"},
        {"swap make 1 64M", kExitBusy, "in use by nbdcopy (pid 1)",
         [](Machine& m) { m.facts[kSystem].clients = "nbdcopy (pid 1)"; }},
        {"swap make 1 64M", kExitFailed, "no file system",
         [](Machine& m) { m.facts[kSystem].fileSystem = FileSystemKind::None; }},
        {"swap make 1 64M", kExitBusy, "already", [](Machine& m) { m.fixed[1].SwapStatus = 1; }},
        // what it answers, and what came of it.
        {"swap make 1 64M", kExitFailed, "holds the configuration",
         refused(IOCTL_KVR_ALLOCATE_SWAP, STATUS_INVALID_PARAMETER)},
        {"swap make 1 64M", kExitBusy, "swap stop",
         refused(IOCTL_KVR_ALLOCATE_SWAP, STATUS_FILE_LOCK_CONFLICT)},
        {"swap remove 1", kExitBusy, "in use: x",
         refused(IOCTL_KVR_REMOVE_SWAP, STATUS_DEVICE_BUSY, "HarddiskVolume1 is in use: x")},
        {"swap make 1 9.5M", kExitFailed, "not finished: 0 bytes of 10 MiB were made; the volume"},
        {"swap make 1 9.5M", kExitFailed, "were made (the host is full); the volume",
         [](Machine& m) { m.whyUnfinished = "the host is full"; }},
        {"swap make 1 9.5M", kExitFailed, "were made (the volume has 512 KiB free); the volume",
         [](Machine& m) { m.onChange = [&m](std::uint32_t) { m.facts[kSystem].freeBytes = kMiB / 2; }; }},
        {"swap make 1 9.5M", kExitFailed, "has 9 MiB instead of 10 MiB", whole(9 * kMiB)},
        {"swap make 1 9.5M", kExitOk, "Made 10 MiB", whole(10 * kMiB)},
        {"enable", kExitOk, "nothing was changed", refused(IOCTL_KVR_SET_CONFIG, STATUS_NO_SUCH_FILE)},
        {"disable", kExitFailed, "system32\\drivers", refused(IOCTL_KVR_SET_CONFIG, STATUS_NO_SUCH_FILE)},
        {"disable", kExitDenied, "administrator", refused(IOCTL_KVR_SET_CONFIG, STATUS_ACCESS_DENIED)},
        {"status", kExitFailed, "stands by", refused(IOCTL_KVR_GET_ENABLED, STATUS_INVALID_DEVICE_REQUEST)},
        {"status", kExitFailed, "0xC0001234", refused(IOCTL_KVR_GET_ENABLED, KvrStatus(0xC0001234))},
        {"status", kExitOk, "Protection", [](Machine& m) { m.busyOpens = 3; }},
        // What is to be protected and is not, in the first line,
        {"status", kExitFailed,
         "WARNING: HarddiskVolume2 is to be protected and is not (storage: missing, make\n"
         "  it); its writes are refused.\n"
         "WARNING: HarddiskVolume3 is FULL: writes find no room.\n"
         "Protection is on.\nHardening is on, from the next boot on off.\n",
         troubled(4, true)},
        {"status", kExitFailed, "its writes change the volume itself.\n", troubled(3, false)},
        {"status", kExitFailed, "protects it); its writes change\n", troubled(6, true)},
        {"status", kExitFailed, "WARNING: HarddiskVolume2 is protected, but changes that it is to keep are",
         troubled(5, true, 2)},
        {"status --json", kExitFailed,
         "\"HarddiskVolume2 is to be protected and is not (storage: missing, make it)\"",
         troubled(4, std::nullopt)},
        {"status", kExitOk, "Hardening is on,", troubled(2, true)},
        // As it should be is more than as this boot was told: protected, with room, and sound.
        {"status --check", kExitFailed, "HarddiskVolume3 has bad storage.\n", [](Machine&) {}},
        {"status --check", kExitOk, "", filled(410)},
        {"status", kExitOk, "WARNING: HarddiskVolume2's storage is more than 80 % used.\n", filled(410)},
        {"status --check", kExitFailed, "HarddiskVolume2 is FULL: writes find no room.\n", filled(504)},
        {"status --check", kExitFailed, "HarddiskVolume2 is to be protected and is not yet.\n",
         [=](Machine& m) { troubled(2, true)(m), m.registry[kData] = Bytes(8); }},
        {"status --check", kExitFailed, "HarddiskVolume2 is protected, but changes that it is to keep are",
         troubled(5, true, 2)},
        {"status --check", kExitFailed, "HarddiskVolume7 is to be protected and is not there.\n",
         [](Machine& m) {
             m.config = u"[Global]\nProtection=1\n[FV 1]\nID=\\Device\\HarddiskVolume7\nProtectionMode=1\n";
         }},
        // Storage of an unprotected volume is looked at, too; the driver has not tried it.
        {"status --check", kExitFailed,
         "HarddiskVolume2 has swap storage that was never finished; 'kvrctl swap make HarddiskVolume2 SIZE'",
         [=](Machine& m) { filled(0)(m), m.fixed[2].State = 0, m.config.clear(); }},
        {"status", kExitOk, "512 MiB    0 %    none\n  it has swap storage that was never finished; 'kvrctl",
         [=](Machine& m) { filled(0)(m), m.fixed[2].State = 0, m.config.clear(); }},
        {"volumes", kExitOk, "HarddiskVolume2   B\u00fccher  fixed",
         [](Machine& m) {
             m.descriptions = {{kData, "B\u00fccher", "", "", ""}};
         }},
        {"volumes", kExitOk,
         "HarddiskVolume2   ...    fixed      1000 MiB  700 MiB  ntfs   512\n  label: A label of 32",
         [](Machine& m) {
             m.descriptions = {{kData, "A label of 32 characters is long", "", "", ""}};
         }},
        {"status", kExitOk, "Protection is off", [=](Machine& m) { troubled(4, true)(m), m.enabled = false; }},
        {"hardening", kExitOk, "Hardening is off.\n", [](Machine& m) { m.hardening = false; }},
        {"hardening on", kExitOk, "Hardening is set to on. It holds from the next boot on.\n"},
        {"hardening on --json", kExitOk, "\"nextBoot\": true"},
        {"hardening off", kExitDenied, "no right", [](Machine& m) { m.exitOfWrite = kExitDenied; }},
        {"status", kExitBusy, "another program", [](Machine& m) { m.busyOpens = 1000; }},
        {"status", kExitNotRunning, "no driver", [](Machine& m) { m.exitOfOpen = kExitNotRunning; }},
    };
    for (const auto& row : table) {
        Machine machine = Office();
        row.given(machine);
        const Result result = RunOn(machine, Words(row.words));
        const std::string said = result.out + result.err;
        EXPECT_EQ(row.exitCode, result.exitCode) << said;
        EXPECT_NE(std::string::npos, said.find(row.says)) << row.says << said;
        EXPECT_LE(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        const std::size_t made = row.words == "swap make 1 9.5M" ? 1 : 0;
        EXPECT_EQ(std::vector<std::uint32_t>(made, IOCTL_KVR_ALLOCATE_SWAP), machine.changes);
    }
}

// What `volumes` and `status` say of the next boot, in one's words; a date that is over drops once, unless a
// merge comes before it.
TEST(CtlCommands, PlansForTheNextBoot) {
    const struct {
        const char16_t* settings;
        std::string words, detail;
    } table[] = {
        {u"BootMode=1\n", "keeps changes", ""},
        {u"BootMode=1\nNextDiscardTS=203001011800\n", "keeps changes",
         "keeps changes until 2030-01-01 18:00 UTC+1"},
        {u"BootMode=1\nNextDiscardTS=202001011800\n", "drops changes",
         "keep until 2020-01-01 18:00 UTC+1 is over: dropped at the next boot, then kept"},
        {u"BootMode=1\nNextDiscardTS=202001011800\nBootAction=2\n", "merges changes",
         "merge at the next boot, once; then kept"},
        {u"BootMode=1\nNextDiscardTS=203001011800\nBootAction=1\n", "drops changes",
         "discard at the next boot, once; then kept until 2030-01-01 18:00 UTC+1"},
        {u"BootMode=0\nBootAction=1\n", "drops changes",
         "discard at the next boot, once; then dropped at every boot"},
        {u"BootMode=0\nBootAction=2\n", "merges changes",
         "merge at the next boot, once; then dropped at every boot"},
    };
    for (const auto& row : table) {
        Machine machine = Office();
        machine.minutesEast = 60;
        machine.config = u"[Global]\nProtection=1\n[FV 1]\nID=\\Device\\HarddiskVolume2\nProtectionMode=1\n";
        machine.config += row.settings;
        const bool both = !row.detail.starts_with(row.words);
        const std::string plan = both && !row.detail.empty() ? row.words + "; " + row.detail
                                 : both                      ? row.words
                                                             : row.detail;
        const std::string volumes = Unfolded(RunOn(machine, {"volumes"}).out);
        EXPECT_NE(volumes.npos, volumes.find("\n  next boot: " + plan + "\n")) << plan << volumes;
        const std::string status = Unfolded(RunOn(machine, {"status"}).out);
        EXPECT_NE(status.npos, status.find("  protected      " + row.words + "  ")) << status;
        EXPECT_NE(status.npos, status.find(row.detail)) << row.detail << status;
    }
}

TEST(CtlCommands, EditsShowTheChangeAndStoreIt) {
    Machine machine = Office();
    const Result dry = RunOn(machine, {"removable", "hide", "13", "--dry-run"});
    EXPECT_EQ(
        "  [Global]\n  Protection=1\n+ \n+ [RV 1]\n+ ID = \\Device\\HarddiskVolume13\n+ AccessMode = 2\n"
        "Nothing was stored (--dry-run).\n",
        dry.out);
    EXPECT_TRUE(machine.changes.empty());
    machine.registry[kData] = Bytes(8);
    const Result stored = RunOn(machine, {"protect", "2", "--until", "2090-01-31 18:00"});
    EXPECT_NE(std::string::npos, stored.out.find("+ NextDiscardTS = 209001311800\n"));
    EXPECT_NE(std::string::npos, stored.out.find("Stored. It holds from the next boot on.\n"));
    EXPECT_EQ("", stored.err);
    EXPECT_EQ(std::vector<std::uint32_t>{IOCTL_KVR_SET_CONFIG}, machine.changes);
    EXPECT_EQ(kExitOk, RunOn(machine, {"merge", "2", "--anyway"}).exitCode);
    EXPECT_EQ(kExitOk, RunOn(machine, {"removable", "protect"}).exitCode);
    const Result disabled = RunOn(machine, {"disable", "--drop-changes"});
    EXPECT_NE(std::string::npos, disabled.err.find("the next boot will merge its changes")) << disabled.err;
    EXPECT_TRUE(machine.config.starts_with(u"[Global]\nProtection=0\nRVAccessMode = 1\n"))
        << ToUtf8(machine.config);
    EXPECT_EQ("The configuration says so already; nothing was changed.\n", RunOn(machine, {"disable"}).out);
}

// Volume 2 keeps 300 MiB of changes in 512 MiB of storage.
Machine Desk() {
    Machine machine = Office();
    machine.fixed[2].SwapUsedBytes = 300 * kMiB;
    machine.registry[kData] = Bytes(8);
    machine.config =
        u"[Global]\nProtection=1\n[FV 1]\nID=\\Device\\HarddiskVolume2\nProtectionMode=1\nBootMode=1\n";
    return machine;
}

// Work is not lost without a word: what would lose it is refused, and nothing is stored, until the option says
// that it is meant; where it cannot work, until --anyway.
TEST(CtlCommands, WhatWouldLoseWorkIsRefused) {
    using Given = std::function<void(Machine&)>;
    const auto text = [](const char16_t* more) -> Given { return [=](Machine& m) { m.config += more; }; };
    const auto storage = [](std::uint32_t status) -> Given {
        return [=](Machine& m) { m.fixed[2].SwapStatus = status; };
    };
    const Given noLocation = [](Machine& m) { m.registry.clear(); };
    const Given small = [](Machine& m) { m.fixed[2].SwapTotalBytes = 351 * kMiB; };
    const char* drops = "the next boot would drop kept changes: 300 MiB on HarddiskVolume2; say --drop-changes";
    const struct {
        std::string words;
        const char* says;  // empty: it is stored at once
        std::string option = "--drop-changes";
        Given given = [](Machine&) {};
    } table[] = {
        {"unprotect 2", drops},
        {"disable", drops},
        {"discard 2", drops},
        {"protect 2 --at-boot discard", drops},
        {"cancel 2", drops, "--drop-changes",
         [](Machine& m) { m.config[m.config.find(u"BootMode=1") + 9] = u'0', m.config += u"BootAction=2\n"; }},
        {"config set " + std::string("/dev/null"), drops},
        // What the next boot drops anyway is nobody's loss,
        {"unprotect 2", "", "", text(u"BootAction=1\n")},
        {"unprotect 2", "", "", text(u"NextDiscardTS=202001010000\n")},
        {"unprotect 2", "", "", [](Machine& m) { m.fixed[2].SwapUsedBytes = 0; }},
        {"cancel 2", "", "", text(u"BootAction=1\n")},
        // and a merge of what there is room for goes at once.
        {"merge 2", ""},
        {"merge 2",
         "a merge needs more than 51 MiB of free storage at the boot; HarddiskVolume2 has 51 MiB of 351 MiB",
         "--anyway", small},
        {"merge 2", "cannot be merged: it has no sound swap storage (saved map damaged", "", storage(3)},
        {"merge 2", "no sound swap storage (missing", "", storage(4)},
        {"merge 2", "no sound swap storage (files cannot be held", "", storage(5)},
        {"merge 2", "storage that is just being made", "", storage(1)},
        {"merge 2", "was never finished; 'kvrctl swap make HarddiskVolume2 SIZE' makes it anew", "",
         noLocation},
        {"protect 1", "cannot be protected: it has no swap storage", "--anyway"},
        {"protect 2 --at-boot discard --drop-changes", "no sound swap storage (saved map damaged", "--anyway",
         storage(3)},
        {"protect 2 --until 2090-01-01T00:00", "only --at-boot discard protects it", "--anyway", storage(6)},
        {"protect 2 --at-boot discard --drop-changes", "", "", storage(6)},
        {"protect 2 --until 2090-01-01T00:00", "was never finished", "--anyway", noLocation},
        {"protect 2 --until 2090-01-01T00:00", "every write fails in the last 8 MiB", "--anyway",
         [](Machine& m) { m.fixed[2].SwapTotalBytes = 8 * kMiB; }},
    };
    const std::vector<std::uint32_t> nothing, stored{IOCTL_KVR_SET_CONFIG};
    for (const auto& row : table) {
        const bool isRefused = *row.says != 0;
        Machine machine = Desk();
        row.given(machine);
        const Result result = RunOn(machine, Words(row.words));
        EXPECT_EQ(isRefused ? kExitFailed : kExitOk, result.exitCode) << row.words << result.err;
        EXPECT_NE(std::string::npos, result.err.find(row.says)) << row.words << result.err;
        EXPECT_EQ(isRefused ? nothing : stored, machine.changes) << row.words;
        if (!isRefused || row.option.empty()) continue;
        EXPECT_EQ(kExitOk, RunOn(machine, Words(row.words + " " + row.option)).exitCode) << row.words;
        EXPECT_EQ(stored, machine.changes) << row.words;
    }
}

// Where somebody sits at a terminal, a yes is as good as the option, and anything else is a no.
TEST(CtlCommands, AYesAtTheTerminalWillDo) {
    for (const bool yes : {false, true}) {
        Machine machine = Desk();
        RecordingTerminal terminal;
        terminal.canAsk = true, terminal.answersYes = yes;
        const int exitCode = RunCommandLine({"unprotect", "2"}, terminal, [&](const std::string&) {
            return std::make_unique<MadeUpWorld>(machine);
        });
        EXPECT_EQ(yes ? kExitOk : kExitFailed, exitCode);
        EXPECT_EQ(yes ? 1u : 0u, machine.changes.size());
        EXPECT_NE(std::string::npos, terminal.errors.str().find("would drop kept changes: 300 MiB"))
            << terminal.errors.str();
        EXPECT_EQ(yes, terminal.output.str().find(
                           "Stored. It holds from the next boot on, which drops kept changes: 300 MiB") !=
                           std::string::npos);
    }
    Machine machine = Desk();
    const Result dry = RunOn(machine, {"unprotect", "2", "--dry-run"});
    EXPECT_EQ(kExitOk, dry.exitCode);
    EXPECT_NE(std::string::npos, dry.err.find("note: the next boot would drop")) << dry.err;
    EXPECT_TRUE(machine.changes.empty());
}

TEST(CtlCommands, ConfigTextInAndOut) {
    Machine machine = Office();
    const TestFolder folder;
    const std::string file = folder.File("text");
    const auto put = [&](const std::string& bytes) { std::ofstream(file, std::ios::binary) << bytes; };
    put("\xEF\xBB\xBF; caf\xC3\xA9\r\n[Global]\r\nProtection=0\r\n");
    EXPECT_EQ(kExitOk, RunOn(machine, {"config", "set", file}).exitCode);
    EXPECT_EQ("; caf\xC3\xA9\r\n[Global]\r\nProtection=0\r\n", RunOn(machine, {"config", "get"}).out);
    put("[FV1]\n");
    EXPECT_EQ(kExitFailed, RunOn(machine, {"config", "check", file}).exitCode);
    EXPECT_EQ(kExitOk, RunOn(machine, {"config", "set", file, "--force"}).exitCode);
    put(std::string("\xFF\xFE;\0", 4));
    EXPECT_EQ(kExitOk, RunOn(machine, {"config", "set", file}).exitCode);
    EXPECT_EQ(";", RunOn(machine, {"config", "get"}).out);
    for (const std::string& bytes : {std::string("\xFF\xFE;", 3), std::string("\xFF\x41"),
                                     std::string("[FV1]\n"), std::string(5000, 'x')}) {
        put(bytes);
        const Result refused = RunOn(machine, {"config", "set", file});
        EXPECT_EQ(kExitFailed, refused.exitCode);
        EXPECT_EQ(bytes[0] == '[', refused.err.find(file + ":1: error: '[FV1]' is no section head") == 0)
            << refused.err;
        EXPECT_EQ(";", RunOn(machine, {"config", "get"}).out) << "nothing is changed";
    }
    machine.refusals[IOCTL_KVR_GET_CONFIG] = {STATUS_NO_SUCH_FILE, {}};
    EXPECT_EQ("kvrctl: there is no configuration yet\n", RunOn(machine, {"config", "get"}).err);
    EXPECT_EQ(kExitOk, RunOn(machine, {"enable"}).exitCode);
}

// An interrupt wins, and what was begun is ended, although another program holds the device just then.
TEST(CtlCommands, CtrlCEndsWhatWasBegun) {
    Machine machine = Office();
    const auto interrupted = [] { return false; };
    machine.onChange = [&](std::uint32_t code) {
        machine.fixed[1].SwapStatus = code == IOCTL_KVR_ALLOCATE_SWAP;
        machine.busyOpens = 3;
    };
    const Result stopped = RunOn(machine, {"swap", "make", "1", "64M"}, interrupted);
    EXPECT_EQ(kExitStopped, stopped.exitCode);
    EXPECT_NE(std::string::npos, stopped.err.find("what was made is removed again")) << stopped.err;
    EXPECT_EQ((std::vector<std::uint32_t>{IOCTL_KVR_ALLOCATE_SWAP, IOCTL_KVR_STOP_SWAP_THREAD}),
              machine.changes);
    EXPECT_EQ("No storage was being made or removed.\n", RunOn(machine, {"swap", "stop"}).out);
    machine.busyOpens = 1000;
    EXPECT_EQ(kExitStopped, RunOn(machine, {"status"}, interrupted).exitCode);
    EXPECT_EQ(kExitOk, RunOn(machine, {"watch"}, interrupted).exitCode);
}

TEST(CtlCommands, UsageMistakesAndHelp) {
    Machine machine = Office();
    for (const char* text :
         {"", "nonsense", "status x", "protect", "protect 1 --at-boot never", "swap make 1", "swap make 1 2X",
          "hardening maybe", "--json protect 1", "protect 1 --until 2020-01-01T00:00",
          "protect 1 --until=", "protect 1 --at-boot discard --until 2090-01-01T00:00"}) {
        const Result result = RunOn(machine, Words(text));
        EXPECT_EQ(kExitUsage, result.exitCode) << text << result.err;
        EXPECT_EQ(1, std::count(result.err.begin(), result.err.end(), '\n')) << result.err;
    }
    const struct {
        const char *words, *meant;
    } misspelt[] = {{"statsu", "status"},        {"sawp make 1 64M", "swap"}, {"swap mkae 1 64M", "make"},
                    {"unprotct 1", "unprotect"}, {"status --jsno", "--json"}, {"frobnicate", nullptr}};
    for (const auto& row : misspelt) {
        const std::string said = RunOn(machine, Words(row.words)).err;
        const std::string wanted =
            row.meant ? std::string("; did you mean '") + row.meant + "'?" : "understood here (see";
        EXPECT_NE(said.npos, said.find(wanted)) << said;
    }
    EXPECT_EQ(RunOn(machine, {"status", "--json"}).out, RunOn(machine, {"--json", "status"}).out);
    for (const char* command : {"status", "map", "protect", "removable", "config", "swap"})
        EXPECT_NE(std::string::npos,
                  RunOn(machine, {command, "--help"}).out.find("Examples:\n  kvrctl " + std::string(command)));
    EXPECT_TRUE(machine.changes.empty());
}

TEST(CtlCommands, SizesAndDates) {
    EXPECT_EQ(1536 * kMiB, ParseSize("1.5GiB"));
    EXPECT_EQ(102, ParseSize("0.1k"));
    EXPECT_EQ(8388607 * (kMiB << 20), ParseSize("8388607T"));
    EXPECT_EQ(INT64_MAX, ParseSize("9223372036854775807"));
    for (const char* bad : {"8388608T", "9223372036854775808", "", "0", "-1", "G", "1.", "1.5", ".5G", "1GG"})
        EXPECT_THROW(ParseSize(bad), Failure) << bad;
    const Clock clock{-210, u"209902281200"};
    EXPECT_EQ(u"209902281201", ParseDate("2099-02-28 12:01", clock));
    EXPECT_EQ("2099-02-28 23:59 UTC-3:30", DateText(ParseDate("2099-02-28T23:59", clock), clock));
    for (const char* bad : {"", "2100-02-29 00:00", "2100-2-28 00:00", "2100-02-28", "2099-02-28 12:00"})
        EXPECT_THROW(ParseDate(bad, clock), Failure) << bad;
    Machine machine;
    const std::u16string utc = ClockOf(*std::make_unique<MadeUpWorld>(machine)).now;
    machine.minutesEast = 24 * 60;
    EXPECT_GT(ClockOf(*std::make_unique<MadeUpWorld>(machine)).now.substr(0, 8), utc.substr(0, 8));
}

}  // namespace
