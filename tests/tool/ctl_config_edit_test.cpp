// Edits of the configuration text: what changes, and that everything else stays.
#include <gtest/gtest.h>
#include "tool/kvrctl/config_check.h"
#include "tool/kvrctl/config_edit.h"
#include "tool/kvrctl/config_scan.h"
#include "tool/kvrctl/config_store.h"
#include "client/failure.h"
#include "tool/kvrctl/unicode.h"

namespace {

using namespace ctl;

constexpr char16_t kV[] = u"\\Device\\V";

// A text as a person keeps it: odd spacing, comments, a key that nobody knows, LF line ends.
const std::u16string kOwn =
    u"; mine\n[Global]\nProtection = 1   ; on\nColour=blue\n\n[FV data]\n  id=\\device\\v\n\tProtectionMode=0\n"
    u"NextDiscardTS=203001010000\nBootMode=1 # kept\n; end\n";

TEST(ConfigEdit, ChangesItsOwnCharactersOnly) {
    std::u16string expected = kOwn;
    expected.replace(expected.find(u"Mode=0"), 6, u"Mode=1");
    Protection keep;
    keep.atBoot = AtBoot::Discard;
    std::u16string discarding = expected;
    discarding.erase(discarding.find(u"NextDiscardTS"), 27);
    discarding.replace(discarding.find(u"Mode=1 #"), 8, u"Mode=0 #");
    EXPECT_EQ(ToUtf8(discarding), ToUtf8(ProtectVolume(kOwn, kV, keep)));
    // The date above its boot mode would not count: the edit puts it below.
    std::u16string dated = expected;
    dated.erase(dated.find(u"NextDiscardTS"), 27);
    dated.insert(dated.find(u"; end"), u"NextDiscardTS = 203001010000\n");
    EXPECT_EQ(ToUtf8(dated), ToUtf8(ProtectVolume(kOwn, kV, {})));
    EXPECT_EQ(dated, ProtectVolume(dated, kV, {}));
    std::u16string off = dated;
    off.replace(off.find(u"Protection = 1"), 14, u"Protection = 0");
    EXPECT_EQ(ToUtf8(off), ToUtf8(SetSwitch(dated, false)));
    EXPECT_EQ(dated, SetSwitch(off, true));
    std::u16string merging = dated;
    merging.insert(merging.find(u"; end"), u"BootAction = 2\n");
    EXPECT_EQ(ToUtf8(merging), ToUtf8(MergeOnce(dated, kV)));
    EXPECT_EQ(ToUtf8(UnprotectVolume(dated, kV)),
              ToUtf8(std::u16string(dated).replace(dated.find(u"ProtectionMode=1"), 16, u"ProtectionMode=0")));
    EXPECT_EQ(kOwn, UnprotectVolume(kOwn, u"\\Device\\Other"));
}

// From nothing, one edit after the other: always a text that the driver takes as it reads.
TEST(ConfigEdit, BuildsACleanText) {
    Protection until;
    until.atBoot = AtBoot::Keep;
    until.until = u"203001010000";
    std::u16string text = ProtectVolume({}, kV, {});
    EXPECT_TRUE(ScanConfig(text).Find(kV)->volume.switchWasOn);
    EXPECT_FALSE(ScanConfig(ProtectVolume(u"[Global]\nProtection=0\n", kV, {})).protection);
    text = SetRemovable(text, {}, 1);
    text = SetRemovable(text, u"\\Device\\R", 2);
    text = SetSwitch(text, true);
    text = ProtectVolume(text, u"\\Device\\W", until);
    text = DiscardOnce(text, u"\\device\\w");
    for (const Finding& finding : CheckConfig(text)) ADD_FAILURE() << finding.line << ": " << finding.text;
    EXPECT_EQ(
        "[Global]\r\nProtection = 1\r\nRVAccessMode = 1\r\n\r\n"
        "[FV 1]\r\nID = \\Device\\V\r\nProtectionMode = 1\r\nBootMode = 0\r\nBootAction = 0\r\n\r\n"
        "[RV 1]\r\nID = \\Device\\R\r\nAccessMode = 2\r\n\r\n"
        "[FV 2]\r\nID = \\Device\\W\r\nProtectionMode = 1\r\nBootMode = 1\r\n"
        "NextDiscardTS = 203001010000\r\nBootAction = 1\r\n",
        ToUtf8(text));
    EXPECT_TRUE(ScanConfig(text).Find(u"\\DEVICE\\w")->volume.isProtected);
}

// Where the driver would not follow, nothing is changed and the line that is in the way is named.
TEST(ConfigEdit, RefusesWhatWouldHaveNoEffect) {
    const auto refusal = [](const auto& edit) -> std::string {
        try {
            edit();
            return "none";
        } catch (const Failure& failure) {
            return failure.what();
        }
    };
    const std::u16string stopped = u"[Global]\nProtection=1\n=\n";
    EXPECT_NE(std::string::npos, refusal([&] { ProtectVolume(stopped, kV, {}); }).find("line 3"));
    const std::u16string late = u"[FV 1]\nID=\\Device\\V\nProtectionMode=1\n[FV 2]\nID=x\n[Global]\nColour=1\n";
    EXPECT_EQ(true, ScanConfig(SetSwitch(late, true)).Find(kV)->volume.switchWasOn);
    const std::u16string tooLate = u"[FV 1]\nID=\\Device\\V\n[FV 2]\nID=x\n[Global]\nProtection=1\n";
    EXPECT_NE(std::string::npos,
              refusal([&] { ProtectVolume(tooLate, kV, {}); }).find("line 3: the [Global] behind"));
    EXPECT_NE(std::string::npos, refusal([&] { MergeOnce(kOwn, kV); }).find("not protected"));
    EXPECT_NE(std::string::npos, refusal([&] { SetRemovable(kOwn, kV, 1); }).find("as a fixed volume"));
    const std::u16string full = u"; " + std::u16string(4060, u'x') + u"\n";
    EXPECT_NE(std::string::npos, refusal([&] { ProtectVolume(full, kV, {}); }).find("characters"));
    // A head without its bracket swallows what belongs to it.
    const std::u16string hidden = u"[FV 1]\nID=\\Device\\V\nProtectionMode=0\n[FV 1\nID=\\Device\\W\n";
    EXPECT_NE(std::string::npos, refusal([&] { ProtectVolume(hidden, u"\\Device\\W", {}); }).find("line 4"));
}

TEST(ConfigEdit, DiffShowsTheChangeAndWhatIsAround) {
    EXPECT_EQ("", DiffText("a\nb\n", "a\nb\n", false));
    EXPECT_EQ("  b\n  c\n- d\n+ D\n  e\n  f\n  ...\n  i\n  j\n+ k\n",
              DiffText("a\nb\nc\nd\ne\nf\ng\nh\ni\nj\n", "a\nb\nc\nD\ne\nf\ng\nh\ni\nj\nk\n", false));
    EXPECT_EQ("- a\n+ a\n", DiffText("a\r\n", "a", false));
}

TEST(ConfigEdit, TextsKeepEveryCharacterThroughUtf8) {
    std::u16string odd = u"\uFEFF\u00E9\u20AC\U0001F600";
    odd += static_cast<char16_t>(0xD800);  // half a pair
    odd += u"x";
    odd += static_cast<char16_t>(0xDC00);
    odd += u'\0';
    EXPECT_EQ(odd, FromUtf8(ToUtf8(odd), "odd"));
    for (const char* bad : {"\x80", "\xC0\x80", "\xE2\x82", "\xF5\x80\x80\x80", "a\xFF", "\xE0\x80\x80"})
        EXPECT_THROW(FromUtf8(bad, "bad"), Failure) << bad;
}

}  // namespace
