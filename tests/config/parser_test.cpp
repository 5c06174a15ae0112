#include <gtest/gtest.h>
#include <cstring>
#include <memory>
#include <string>
#include <vector>
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "config/storage.h"
#include "driver/globals.h"
#include "platform/host/sync/clock.h"
#include "platform/host/memory/pool.h"

namespace {

using Entries = std::vector<std::pair<std::u16string, ULONG>>;

struct Parsed {
    Entries entries;
    std::u16string text;  // after the parse
    bool dirty;
    bool enabled;
    bool protect;
    bool invisible;
};

// Parses a block that is exactly as long as the text, so that the address sanitizer sees every step too far.
Parsed ParseBytes(const std::u16string& text, ULONG bytes) {
    InitializeGlobals();
    const auto block = std::make_unique<UCHAR[]>(bytes);
    std::memcpy(block.get(), text.data(), bytes);
    ParseConfig(reinterpret_cast<PWCHAR>(block.get()), bytes);
    Parsed parsed = {{}, text, gConfigDirty != 0, gTesselEnabled != 0, gRVProtect != 0, gRVInvisible != 0};
    std::memcpy(parsed.text.data(), block.get(), bytes);
    for (PROTECTED_VOLUME* entry = gProtectedVolumeList; entry; entry = entry->Next)
        parsed.entries.emplace_back(std::u16string(entry->Name.Buffer, entry->Name.Length / 2), entry->Flags);
    gProtectedVolumeList = nullptr;
    host::PoolReclaimAll();
    return parsed;
}

Parsed Parse(const std::u16string& text) {
    return ParseBytes(text, static_cast<ULONG>(text.size() * 2));
}

const std::u16string kOn = u"[Global]\r\nProtection=1\r\n";
const std::u16string kVolume = u"[FV 1]\r\nID=V\r\nProtectionMode=1\r\n";

struct Grammar {
    const char* what;
    std::u16string text;
    Entries entries;
};

TEST(Parser, GrammarTable) {
    const Entries one = {{u"V", 0x111}};
    const Grammar table[] = {
        {"blanks round '=' and text behind the value", u"[Global]\nProtection \t= 1 anything\n" + kVolume, one},
        {"any case", u"[GLOBAL]\nPROTECTION=1\n[fv 1]\nid=V\nprotectionmode=1\n", one},
        {"keys before any head count as global", u"Protection=1\n" + kVolume, one},
        {"heads end in ':' or '=' too",
         kOn + u"[FV:1]\nID=V\nProtectionMode=1\n[RV=x]\nID=R\nAccessMode=1\n",
         {{u"V", 0x111}, {u"R", 0x101}}},
        {"a head runs over line ends to its bracket", kOn + u"[FV one\r\ntwo]\r\nID=V\r\nProtectionMode=1",
         one},
        {"a head without a bracket takes the rest", kOn + kVolume + u"[RV 1\nID=R\n", one},
        {"'BootMode:1' and a bare key set nothing", kOn + kVolume + u"BootMode:1\nBootMode\n", one},
        {"a line that begins with '=' ends the parse", kOn + kVolume + u"=\n[FV 2]\nID=W\n", one},
        {"so does NUL", kOn + kVolume + std::u16string(1, u'\0') + u"[FV 2]\nID=W\n", one},
        {"a byte-order mark belongs to the first token", u"\uFEFFProtection=1\n" + kVolume, {{u"V", 0}}},
        {"the switch must come first", kVolume + kOn + u"[FV 2]\nID=W\nProtectionMode=1\n", {{u"W", 0x111}}},
        {"... or the sections saved before get no flags", kVolume + u"[FV 2]\n" + kOn, {{u"V", 0}}},
        {"[Global] drops the pending section", kOn + kVolume + u"[Global]\n", {}},
        {"... unless nothing at all follows it", kOn + kVolume + u"[Global]", one},
        {"a section without settings is not saved", kOn + u"[FV 1]\n[RV 2]\n", {}},
        {"a section without an ID", kOn + u"[FV 1]\nProtectionMode=1\n", {{u"", 0x111}}},
        {"the first section of a name wins", kOn + kVolume + u"[RV 1]\nID=v\nAccessMode=2\n", one},
        {"an ID ends at ',' and ';', and as every token",
         kOn + u"[FV 1]\nID=V,x\n[FV 2]\nID=W;x\n[FV 3]\nID=X:y\n",
         {{u"V", 0}, {u"W", 0}, {u"X", 0}}},
        {"an ID is cut to 64 characters",
         kOn + u"[FV 1]\nID=" + std::u16string(70, u'a') + u"\n",
         {{std::u16string(64, u'a'), 0}}},
        {"keys of the other kind are ignored",
         kOn + u"[RV 1]\nID=R\nProtectionMode=1\nBootAction=1\n",
         {{u"R", 0}}},
        {"access modes",
         kOn + u"[RV 1]\nID=a\nAccessMode=0\n[RV 2]\nID=b\nAccessMode=1\n[RV 3]\nID=c\nAccessMode=2\n",
         {{u"a", 0}, {u"b", 0x101}, {u"c", 0x003}}},
        {"an equals sign at the very end", kOn + kVolume + u"BootMode =", one},
    };
    for (const Grammar& row : table) EXPECT_EQ(row.entries, Parse(row.text).entries) << row.what;
}

TEST(Parser, RemovableDefaults) {
    const std::u16string section = u"[RV 1]\nID=R\nAccessMode=3\n";
    const struct {
        std::u16string mode;
        bool protect, invisible;
        ULONG flags;
    } table[] = {{u"0", false, false, 0},
                 {u"1", true, false, 0x101},
                 {u"2", true, true, 0x003},
                 {u"3", false, false, 0}};
    for (const auto& row : table) {
        const Parsed parsed = Parse(kOn + u"RVAccessMode=" + row.mode + u"\n" + section);
        EXPECT_EQ(row.protect, parsed.protect);
        EXPECT_EQ(row.invisible, parsed.invisible);
        EXPECT_EQ((Entries{{u"R", row.flags}}), parsed.entries);
    }
}

// Flags and the text that is left, by what a protected fixed volume's section says.
TEST(Parser, BootActionTable) {
    const struct {
        std::u16string lines, after;
        ULONG flags;
        bool dirty;
    } table[] = {
        {u"BootMode=1\n", u"BootMode=1\n", 0x101, false},
        {u"BootMode=0\n", u"BootMode=0\n", 0x111, false},
        {u"BootMode=0\nBootAction=2\n", u"BootMode=0\nBootAction=0\n", 0x121, true},
        {u"BootMode=1\nBootAction=1\n", u"BootMode=1\nBootAction=0\n", 0x111, true},
        {u"BootMode=1\nBootAction=1\nBootAction=7\n", u"BootMode=1\nBootAction=0\nBootAction=7\n", 0x101, true},
        {u"BootMode=1\nBootAction=0\n", u"BootMode=1\nBootAction=0\n", 0x101, false},
    };
    for (const auto& row : table) {
        const Parsed parsed = Parse(kOn + kVolume + row.lines);
        EXPECT_EQ((Entries{{u"V", row.flags}}), parsed.entries);
        EXPECT_EQ(kOn + kVolume + row.after, parsed.text);
        EXPECT_EQ(row.dirty, parsed.dirty);
    }
}

class ParserDates : public testing::Test {
protected:
    void SetUp() override {
        host::SetSystemTime(host::TimeOf(2026, 5, 4, 23, 30));
        host::SetTimeZoneBias(-60);  // 2026-05-05 00:30 local time
    }
    void TearDown() override {
        host::SetTimeZoneBias(0);
        host::FollowRealClock();
    }
    // `due`: discarded and overwritten; otherwise kept as it was.
    static void ExpectDue(const std::u16string& before, const std::u16string& date,
                          const std::u16string& behind, bool due) {
        const Parsed parsed = Parse(before + date + behind);
        EXPECT_EQ((Entries{{u"V", due ? 0x111u : 0x101u}}), parsed.entries);
        EXPECT_EQ(before + (due ? u"000000000000" : date) + behind, parsed.text);
        EXPECT_EQ(due, parsed.dirty);
    }
};

TEST_F(ParserDates, OfASection) {
    const std::u16string before = kOn + kVolume + u"BootMode=1\nNextDiscardTS=";
    ExpectDue(before, u"202605050030", u"\n", true);  // the minute itself, local time
    ExpectDue(before, u"202605050031", u"\n", false);
    ExpectDue(before, u"202605042330", u"", true);
    ExpectDue(before, u"000000000000", u"\n", false);  // no date
    ExpectDue(before, u"2026050400", u"\n", false);    // ten digits
    ExpectDue(before, u"20260504000000", u"\n", false);
    ExpectDue(before, std::u16string(200, u'0'), u"\n", false);
}

TEST_F(ParserDates, NeedTheirBootModeLineFirst) {
    const std::u16string section = kOn + kVolume;
    EXPECT_EQ(section + u"NextDiscardTS=202001010000\nBootMode=1\n",
              Parse(section + u"NextDiscardTS=202001010000\nBootMode=1\n").text);
    EXPECT_FALSE(Parse(section + u"BootMode=2\nNextDiscardTS=202001010000\n").dirty);
}

TEST_F(ParserDates, OfAllFixedVolumesReachOnlySectionsThatAskForThem) {
    const std::u16string before = kOn + u"FVBootMode=1\nFVNextDiscardTS=";
    ExpectDue(before, u"202605050030", u"\n" + kVolume + u"BootMode=2\n", true);
    const Parsed silent = Parse(before + u"202605050030\n" + kVolume);
    EXPECT_EQ((Entries{{u"V", 0x101}}), silent.entries) << "without a BootMode line the date is not inherited";
    EXPECT_FALSE(Parse(kOn + u"FVNextDiscardTS=202001010000\n").dirty) << "the boot mode gates the date";
}

TEST(Parser, LengthsAreCutToWhatACursorHolds) {
    EXPECT_TRUE(Parse(u"").entries.empty());
    EXPECT_TRUE(Parse(u" \t\r\n").entries.empty());
    const std::u16string text = kOn + kVolume;
    const auto bytes = static_cast<ULONG>(text.size() * 2);
    EXPECT_EQ((Entries{{u"V", 0x111}}), ParseBytes(text + u"\n", bytes + 1).entries) << "half a character";
    std::u16string longText = text;
    longText.resize(32767, u'\n');
    longText += u"[FV 2]\nID=W\n";
    EXPECT_EQ((Entries{{u"V", 0x111}}), Parse(longText).entries) << "beyond 65534 bytes nothing is read";
}

}  // namespace
