// The configuration text in the control tool: what `config check` finds, what a scan tells, what edits change.
#include <gtest/gtest.h>
#include <algorithm>
#include "tool/kvrctl/config_check.h"
#include "tool/kvrctl/config_edit.h"
#include "tool/kvrctl/config_scan.h"
#include "tool/kvrctl/config_text.h"
#include "tool/kvrctl/config_store.h"
#include "client/failure.h"
#include "tests/support/scratch_folder.h"
#include "tool/kvrctl/unicode.h"

namespace {

using namespace ctl;

const std::string kOn = "[Global]\r\nProtection=1\r\n";                          // lines 1 and 2
const std::string kVolume = "[FV 1]\r\nID=\\Device\\V\r\nProtectionMode=1\r\n";  // three lines
const std::string kOnV = kOn + kVolume;
const std::string kDate = "202712310000\r\n";

std::u16string Wide(const std::string& text) {
    return FromUtf8(text, "a test's text");
}

std::string Found(const std::u16string& text) {
    std::string found;
    for (const Finding& finding : CheckConfig(text))
        found += std::to_string(finding.line) + (finding.severity == Severity::Error ? "E " : "W ") +
                 finding.text + "\n";
    return found;
}

// Nothing but what a row says is found; a row without words is a text that the driver takes as it reads.
TEST(ConfigCheck, FindsWhatTheDriverWouldIgnore) {
    const struct {
        std::string text, line = {}, words = {};
        std::ptrdiff_t findings = 1;
    } table[] = {
        {kOnV + "; x\n# x\r\n//x\r\n\r\nBootMode=1 ; keep\nNextDiscardTS=" + kDate + "\tBootAction = 2\r\n"},
        {kOn + "FVBootMode=1\nFVNextDiscardTS=" + kDate + kVolume +
         "BootMode=2\n[RV 1]\nID=\\device\\R\nAccessMode=3"},
        {"[Globals]\r\n", "1E", "'[Globals]' is no section head"},
        {kOnV + "[RV 1\r\nID=\\Device\\V\r\n", "6E", "swallows the rest", 2},
        {kOnV + "[FV 1\r\n2]\r\nID=\\Device\\W\n", "6E", "swallows the lines up to the next one"},
        {kOn + "[FV 1]ID=\\Device\\V\r\nProtectionMode=1\r\nID=\\Device\\V", "3E",
         "behind the head is ignored"},
        {kOnV + "[Global]\r\n", "3E", "forget it", 3},
        {kOnV + "[Global]\r\n", "6E", "too late for those above", 3},
        {kOn + "[Global]\r\nRVAccessMode=1\n", "3W", "a second [Global]"},
        {kOn + "[Global]\r\nProtection=1\n", "4E", "stands on line 2 as well", 2},
        {kVolume + "[FV 2]\nID=\\Device\\W\n" + kOn, "1E", "too late for it", 3},
        {kOnV + "[RV 1]\r\nID=\\device\\v\r\n", "6E", "stands above"},
        {kOn + "Shield=1\r\n", "3E", "'Shield' is no key"},
        {kOn + "=\r\n" + kVolume, "3E", "begins with '=' ends the text"},
        {kOn + std::string("\0", 1) + "\n" + kVolume, "3E", "a zero character"},
        {kOn + "BootMode=1\r\n", "3E", "counts only in an [FV section"},
        {kOn + "ID=x\r\n", "3E", "counts only in a volume's section"},
        {kOnV + "AccessMode=1\r\n", "6E", "counts only in an [RV section"},
        {kOnV + "Protection=1\r\n", "6E", "counts only in [Global]"},
        {kOnV + "BootMode\r\n", "6E", "not followed by '='"},
        {kOnV + "BootMode=\r\n", "6E", "has no value"},
        {kOnV + "BootMode=3\r\n", "6E", "no value of BootMode; it takes 0, 1 or 2"},
        {kOnV + "BootMode=1 keep\r\n", "6W", "'keep' behind the value"},
        {kOnV + "BootMode=1 : keep\r\n", "6E", "': keep' behind the value"},
        {kOn + "[FV 1]\r\nProtectionMode=1\r\n", "3E", "names no volume"},
        {kOn + "[FV 1]\r\nID=\\Device\\V,x\r\n", "4E", "takes it for '\\Device\\V'"},
        {kOn + "[FV 1]\r\nID=\\Device\\" + std::string(57, 'x') + "\r\n", "4E", "longer than 64"},
        {kOn + "[FV 1]\r\nID=C\r\n", "4W", "no volume device's name"},
        {kOn + "FVBootMode=1\nFVNextDiscardTS=" + kDate + kVolume + "BootMode=2\n[FV 2]", "9W", "says nothing"},
        {kOnV + "NextDiscardTS=" + kDate + "BootMode=1\r\n", "6E", "only behind BootMode=1"},
        {kOnV + "BootMode=1\r\nNextDiscardTS=20271231000\r\n", "7E", "is no date"},
        {kOnV + "BootMode=1\r\nNextDiscardTS=" + kDate + "BootMode=0\n", "7W",
         "the section's boot mode is not 1", 2},
        {kOn + "FVNextDiscardTS=" + kDate + "FVBootMode=1\r\n", "3E", "only behind FVBootMode=1"},
        {kOn + "FVBootMode=1\r\nFVNextDiscardTS=" + kDate + kVolume, "5W", "without a BootMode=2", 2},
        {kOn + "FVBootMode=1\r\nFVNextDiscardTS=" + kDate, "4W", "no use"},
        {kOn + "[FV 1]\r\nID=\\Device\\V\r\nBootAction=2\r\n", "5W", "BootAction does nothing"},
        {kOnV + "# a note\rBootMode=1\r\n", "6E", "carriage return"},
        {kOnV + "; " + std::string(4097 - kOnV.size() - 2, 'x'), "6E",
         "than 4096 characters; the text has 4097"},
        {"\xEF\xBB\xBF# x\r\n", "1E", "byte-order mark", 2},
    };
    for (const auto& row : table) {
        const std::string found = Found(Wide(row.text));
        const std::size_t at = found.find(row.words);
        EXPECT_EQ(row.words.empty() ? 0 : row.findings, std::count(found.begin(), found.end(), '\n'))
            << row.text << found;
        if (row.words.empty()) continue;
        ASSERT_NE(found.npos, at) << row.text << found;
        EXPECT_EQ(row.line, found.substr(found.rfind('\n', at) + 1, row.line.size())) << row.text << found;
    }
}

TEST(ConfigCheck, FindsDatesThatAreOverByTheMachinesClock) {
    const std::u16string text = Wide(kOnV + "BootMode=1\r\nNextDiscardTS=" + kDate);
    const Clock before{60, u"202712302359"}, then{60, u"202712310000"};
    EXPECT_TRUE(CheckConfig(text, &before).empty());
    ASSERT_EQ(1u, CheckConfig(text, &then).size());
    EXPECT_EQ("2027-12-31 00:00 UTC+1 is over: the next boot drops the changes",
              CheckConfig(text, &then)[0].text);
}

TEST(ConfigScan, TellsWhatTheNextBootWillDo) {
    std::string text =
        kOn + "RVAccessMode=2\nFVBootMode=1\nFVNextDiscardTS=" + kDate + kVolume +
        "BootMode=2\n[FV 2]\nID=W;x\nBootMode=1\n[RV 3]\nID=R\nAccessMode=3\n[FV 4]\nID=w\nProtectionMode=1\n";
    const std::string last = "[RV 5]\nID=S\nAccessMode=1";
    text += ";" + std::string(4096 - text.size() - last.size() - 2, ' ') + "\n" + last;
    const std::u16string full = Wide(text);
    EXPECT_EQ(full, tool::ConfigurationText(tool::ConfigurationImage(full)));
    std::string told;
    for (const Section& section : ScanConfig(Wide(text + "0")).sections) {  // the buffer ends before the 0
        const VolumeSettings& volume = section.volume;
        if (volume.isListed)
            told += ToUtf8(volume.id) + (volume.isProtected ? " protected " : " free ") +
                    std::to_string(volume.atBoot) + std::to_string(volume.accessMode) + ToUtf8(volume.date) +
                    "\n";
    }
    EXPECT_EQ("\\Device\\V protected 10202712310000\nW free 10\nR protected 12\nS protected 11\n", told);
}

TEST(ConfigScan, DatesAreMinutesOfTheCalendar) {
    for (const char16_t* sound : {u"202802292359", u"200002290000", u"202712310000"})
        EXPECT_TRUE(IsDate(sound));
    for (const char16_t* wrong :
         {u"20271231000", u"2027123100000", u"2027123100:0", u"202713010000", u"202700010000", u"202704310000",
          u"202704000000", u"210002290000", u"202712312400", u"202712310060"})
        EXPECT_FALSE(IsDate(wrong)) << ToUtf8(wrong);
}

constexpr char16_t kV[] = u"\\Device\\V";

std::u16string Replaced(std::u16string text, const std::u16string& from, const std::u16string& to) {
    return text.replace(text.find(from), from.size(), to);
}

// A text as a person keeps it: odd spacing, comments, a key that nobody knows, LF line ends.
TEST(ConfigEdit, ChangesItsOwnCharactersOnly) {
    const std::u16string own =
        u"; mine\n[Global]\nProtection = 1   ; on\nColour=blue\n\n[FV data]\n  "
        u"id=\\device\\v\n\tProtectionMode=0\n"
        u"NextDiscardTS=203001010000\nBootMode=1 # kept\n; end\n";
    // The date above its boot mode would not count: the edit puts it below.
    const std::u16string undated =
        Replaced(Replaced(own, u"NextDiscardTS=203001010000\n", u""), u"Mode=0", u"Mode=1");
    const std::u16string dated = Replaced(undated, u"; end", u"NextDiscardTS = 203001010000\n; end");
    const std::u16string inPlace = Replaced(dated, u"TS = 2", u"TS=2");
    const std::u16string stray = u"[FV 1]\nProtection=1\n";
    const std::u16string bare = u"Protection=1\n[FV 1]\nID=V";
    const struct {
        std::u16string wanted, is;
    } table[] = {
        {dated, ProtectVolume(own, kV, {})},
        {inPlace, ProtectVolume(inPlace, kV, {})},
        {Replaced(undated, u"Mode=1 #", u"Mode=0 #"), ProtectVolume(own, kV, {AtBoot::Discard, {}})},
        {Replaced(dated, u"Protection = 1", u"Protection = 0"), SetSwitch(dated, false)},
        {dated, SetSwitch(SetSwitch(dated, false), true)},
        {stray, SetSwitch(stray, false)},
        {Replaced(dated, u"; end", u"BootAction = 2\n; end"), MergeOnce(dated, kV)},
        {Replaced(dated, u"ProtectionMode=1", u"ProtectionMode=0"), UnprotectVolume(dated, kV)},
        {own, UnprotectVolume(own, u"\\Device\\Other")},
        {own, CancelAction(own, kV)},
        {Replaced(dated, u"; end", u"BootAction = 0\n; end"), CancelAction(MergeOnce(dated, kV), kV)},
        {bare + u"\nProtectionMode = 1\n", ProtectVolume(bare, u"V", {})},
        {u"[Global]\nProtection=0\n", ProtectVolume(u"[Global]\nProtection=0\n", kV, {}).substr(0, 22)},
    };
    for (const auto& row : table) EXPECT_EQ(ToUtf8(row.wanted), ToUtf8(row.is)) << &row - table;
}

// From nothing, one edit after the other: always a text that the driver takes as it reads.
TEST(ConfigEdit, BuildsACleanText) {
    std::u16string text = SetRemovable(ProtectVolume({}, kV, {}), {}, 1);
    text = SetSwitch(SetRemovable(text, u"\\Device\\R", 2), true);
    text = DiscardOnce(ProtectVolume(text, u"\\Device\\W", {AtBoot::Keep, u"203001010000"}), u"\\device\\w");
    EXPECT_EQ("", Found(text));
    EXPECT_EQ(
        "[Global]\r\nProtection = 1\r\nRVAccessMode = 1\r\n\r\n"
        "[FV 1]\r\nID = \\Device\\V\r\nProtectionMode = 1\r\nBootMode = 0\r\nBootAction = 0\r\n\r\n"
        "[RV 1]\r\nID = \\Device\\R\r\nAccessMode = 2\r\n\r\n"
        "[FV 2]\r\nID = \\Device\\W\r\nProtectionMode = 1\r\nBootMode = 1\r\n"
        "NextDiscardTS = 203001010000\r\nBootAction = 1\r\n",
        ToUtf8(text));
}

// Where the driver would not follow, nothing is changed and the line that is in the way is named.
TEST(ConfigEdit, RefusesWhatWouldHaveNoEffect) {
    const std::u16string free = u"[Global]\nProtection=1\n[FV 1]\nID=\\Device\\V\n", other = u"\\Device\\W";
    const struct {
        std::u16string text, volume;
        const char* words;
    } table[] = {
        {free + u"=\n", other, "line 5: a line that begins"},
        {u"[FV 1]\nID=V\n[FV 2]\nID=x\n[Global]\nProtection=1\n", u"V", "line 3: the [Global]"},
        {free + u"[FV 2\nID=x\n", other, "line 5: the head has no"},  // and would swallow what belongs to it
        {free + u"; " + std::u16string(4040, u'x'), other, "would have 4155 characters; the driver holds 4096"},
        {free, u"a:b", "as it would be, line 7: ':b' behind the value 'a'"},
    };
    for (const auto& row : table) {
        const std::string why = Complaint([&] { ProtectVolume(row.text, row.volume, {}); });
        EXPECT_NE(why.npos, why.find(row.words)) << why;
    }
    EXPECT_EQ("the text would have 4118 characters; the driver holds 4096",
              Complaint([] { SetSwitch(std::u16string(4090, u';'), true); }));
    EXPECT_NE("", Complaint([&] { SetRemovable(free, kV, 1); })) << "a section for it as a fixed volume";
    EXPECT_NE("", Complaint([&] { MergeOnce(free, kV); })) << "no changes to decide on";
}

}  // namespace
