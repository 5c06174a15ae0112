#include <gtest/gtest.h>
#include <cstring>
#include <memory>
#include <sstream>
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "config/storage.h"
#include "driver/globals.h"
#include "platform/host/memory/pool.h"
#include "platform/host/rtl/debug_sink.h"
#include "platform/host/sync/clock.h"

namespace {

using Text = std::u16string;

bool drops = false;  // the last entry of the last parse gives its changes up at the next boot

// The list with its flags, the switches that are set, and each line that the parse has changed, such as
// "V:111 on dirty BootAction=0". The block is exactly as long as the text, so that the address sanitizer sees
// every step too far.
std::string Parse(const Text& text, SIZE_T oddBytes = 0) {
    InitializeGlobals();
    const SIZE_T bytes = text.size() * 2 + oddBytes;
    const auto block = std::make_unique<UCHAR[]>(bytes);
    std::memcpy(block.get(), text.data(), text.size() * 2);
    ParseConfig(reinterpret_cast<PWCHAR>(block.get()), static_cast<ULONG>(bytes));
    Text after = text;
    std::memcpy(after.data(), block.get(), text.size() * 2);
    std::ostringstream result;
    for (PROTECTED_VOLUME* entry = gProtectedVolumeList; entry; entry = entry->Next) {
        drops = entry->DropsAtNextBoot;
        result << std::string(entry->Name.Buffer, entry->Name.Buffer + entry->Name.Length / 2) << ":"
               << std::hex << entry->Flags << " ";
    }
    result << (gTesselEnabled ? "on" : "off") << (gRVProtect ? " protect" : "") << (gRVInvisible ? " hide" : "")
           << (gConfigDirty ? " dirty" : "");
    for (std::size_t at = 0, end; at < text.size(); at = end) {
        end = std::min(text.find(u'\n', at), text.size() - 1) + 1;
        if (text.substr(at, end - at) != after.substr(at, end - at))
            result << " " << std::string(after.begin() + at, after.begin() + end - 1);
    }
    gProtectedVolumeList = nullptr;
    host::PoolReclaimAll();
    return result.str();
}

class Parser : public testing::Test {
protected:
    void SetUp() override {
        host::SetSystemTime(host::TimeOf(2026, 5, 4, 23, 30));
        host::SetTimeZoneBias(-60);  // 2026-05-05 00:30 local time
    }
    void TearDown() override {
        host::SetTimeZoneBias(0);
        host::FollowRealClock();
    }
};

const Text kOn = u"[Global]\r\nProtection=1\r\n";
const Text kVolume = u"[FV 1]\r\nID=V\r\nProtectionMode=1\r\n";
const Text kKept = kOn + kVolume + u"BootMode=1\n";
const Text kDefault = u"\n[RV 1]\nID=R\nAccessMode=3\n";
const Text kDue = u"FVNextDiscardTS=202605050029\n";

// What an action or a date does at this boot it does once: the next one goes by the boot mode alone.
TEST_F(Parser, TheNextBootDropsByTheBootModeAlone) {
    const struct {
        Text text;
        std::string now;
        bool drops;
    } cases[] = {{kOn + kVolume, "V:111 on", true},
                 {kKept, "V:101 on", false},
                 {kKept + u"BootAction=1\n", "V:111 on dirty BootAction=0", false},
                 {kKept + u"BootMode=0\nBootAction=2\n", "V:121 on dirty BootAction=0", true}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.now, Parse(c.text));
        EXPECT_EQ(c.drops, drops) << c.now;
    }
}
const Text kKeepAll = kOn + u"FVBootMode=1\n";

TEST_F(Parser, TakesATextAsItSays) {
    const struct {
        Text text;
        std::string result;
    } table[] = {
        {u" \t\r\n", "off"},
        {u"[Global]\nProtection \t= 1 anything\n" + kVolume, "V:111 on"},
        {u"[GLOBAL]\nPROTECTION=1\n[fv 1]\nid=V\nprotectionmode=1\n", "V:111 on"},
        {kOn + u"{fv 1]\nID=V\nProtectionMode=\x11\n", "on"},  // letters alone have a case
        {u"Protection=1\n" + kVolume, "V:111 on"},
        {kOn + u"Protection=0\n", "on"},  // does not switch off
        {kOn + u"[FV:1]\nID=V\n[RV=x]\nID=R\nAccessMode=1\n", "V:0 R:101 on"},
        {kOn + u"[FV1]\nID=V\n[F\nID=V\n[FV 1\r\n2] ID=x\nID=W\n",
         "W:0 on"},  // what is a head, and where it ends
        {kOn + kVolume + u"[RV 1\nID=R\n", "V:111 on"},
        {kOn + kVolume + u"BootMode:1\nBootMode\nBootMode =\nID\nID =", "V:111 on"},
        {kOn + kVolume + u"=\n[FV 2]\nID=W\n", "V:111 on"},
        {kOn + kVolume + Text(1, u'\0') + u"\n[FV 2]\nID=W\n", "V:111 on"},
        {u"\uFEFFProtection=1\n" + kVolume, "V:0 off"},
        {kVolume + u"[FV 2]\nID=W\n" + kOn + u"[FV 3]\nID=X\nProtectionMode=1\n", "V:0 X:111 on"},
        {kOn + kVolume + u"[Global]\n", "on"},                // drops the pending section
        {kOn + kVolume + u"[Global] ", "V:111 on"},           // ... unless nothing at all follows
        {kOn + u"[FV 1]\n[RV 2]\nProtectionMode=1\n", "on"},  // sections that say nothing
        {kOn + u"[FV 1]\nProtectionMode=1\n", ":111 on"},
        {kKept + u"BootAction=1\n[FV 2]\nID=W\n", "V:111 W:0 on dirty BootAction=0"},
        {kOn + kVolume + u"[RV 1]\nID=v\nAccessMode=2\n", "V:111 on"},  // the first of its name wins
        {kOn + u"[FV 1]\nID=V,x\n[FV 2]\nID=W;x\n[FV 3]\nID=X:y\n", "V:0 W:0 X:0 on"},
        {kOn + u"[RV 1]\nID=a\nAccessMode=0\n[RV 2]\nID=b\nAccessMode=2\n", "a:0 b:3 on"},
        {kOn + u"RVAccessMode=2\nRVAccessMode=0" + kDefault, "R:0 on"},
        {kOn + u"RVAccessMode=1\nRVAccessMode=3\nRVAccessMode=20" + kDefault, "R:101 on protect"},
        {kOn + u"RVAccessMode=2" + kDefault + u"AccessMode=4\n", "R:3 on protect hide"},
        {kKeepAll + u"FVBootMode=2\n" + kVolume, "V:101 on"},
        {kKept + u"BootMode=3\nProtectionMode=2\n", "V:101 on"},
        {kKeepAll + kVolume + u"BootMode=0\nBootMode=2\n", "V:101 on"},
        {kKeepAll + kVolume + u"BootMode=0\nBootAction=0\n", "V:111 on"},
        // What counts once is reset in the text.
        {kKept + u"BootAction=1\n", "V:111 on dirty BootAction=0"},
        {kKept + u"BootMode=0\nBootAction=2\n", "V:121 on dirty BootAction=0"},
        {kKept + u"BootAction=1\nBootAction=7\n", "V:101 on dirty BootAction=0"},
        {kKept + u"[Global]\nBootAction=1\n", "on"},
        {kKept + u"NextDiscardTS=202605050030\n",
         "V:111 on dirty NextDiscardTS=000000000000"},  // in its minute
        {kKept + u"NextDiscardTS=202605050031\n", "V:101 on"},
        {kKept + u"NextDiscardTS=000000000000\n", "V:101 on"},
        {kKept + u"NextDiscardTS=2026050400\nNextDiscardTS=20260504000000\n", "V:101 on"},
        {kOn + kVolume + u"NextDiscardTS=202001010000\nBootMode=1\n", "V:101 on"},
        {kOn + kVolume + u"BootMode=2\nNextDiscardTS=202001010000\n", "V:111 on"},
        {kKept + u"[Global]\nNextDiscardTS=202001010000\n", "on dirty"},  // reached, but nobody's
        {kKeepAll + kDue + kVolume + u"BootMode=2\n", "V:111 on dirty FVNextDiscardTS=000000000000"},
        {kKeepAll + kDue + kVolume, "V:101 on dirty FVNextDiscardTS=000000000000"},
        {kOn + kDue, "on"},
        {kKept + u"NextDiscardTS=202001010000\nBootAction=2\n",
         "V:121 on dirty NextDiscardTS=000000000000 BootAction=0"},
        // The length is cut to whole characters and to 65534 bytes.
        {kOn + Text(32767 - 24 - 35, u'\n') + kVolume + u" ID=W\n", "V:111 on"},
    };
    for (const auto& row : table) EXPECT_EQ(row.result, Parse(row.text)) << &row - table;
    EXPECT_EQ("V:111 on", Parse(kOn + kVolume, 1)) << "half a character";
}

TEST_F(Parser, SwitchesStandUntilALineSetsThem) {
    InitializeGlobals();
    gTesselEnabled = gRVProtect = gRVInvisible = TRUE;
    Text text = u"Protection=0\nRVAccessMode=7\n";
    ParseConfig(text.data(), static_cast<ULONG>(text.size() * 2));
    EXPECT_TRUE(gTesselEnabled && gRVProtect && gRVInvisible);
}

TEST_F(Parser, SaysWhatItDoes) {
    const Text text =
        u"[Global]\nProtection\nProtection=1\nRVAccessMode=9\nRVAccessMode=2\nFVBootMode=1\nFVNextDiscardTS="
        u"000000000000\n"
        u"FVNextDiscardTS=202605050030\n[FV 1]\nID=" +
        Text(65, u'v') +
        u"\nProtectionMode=1\nBootMode=1\nNextDiscardTS=203001010000\nNextDiscardTS=202605050029\nBootAction="
        u"2\nID=\n"
        u"[rv:2]\nAccessMode=3\nBootAction=1\n[RV 3]\nAccessMode=1\n[RV 4]\nAccessMode=0\n[FV "
        u"5]\nID=W\nProtection =";
    const ULONGLONG mark = host::DebugMark();
    Parse(text);
    std::string said;
    for (const std::string& line : host::DebugLinesSince(mark)) said += line.substr(4) + "\n";
    const std::string v(64, 'v');
    EXPECT_EQ(
        "ParseConfig...\nSection: [Global]\ngTesselEnabled = 0\ngTesselEnabled = 1\n"
        "RemovableVolumes: (Protect: 0, Invisible: 0)\nRemovableVolumes: (Protect: 1, Invisible: 1)\n"
        "DATE_DSCR: 000000000000\nDATE_DSCR: KVR 202605050030 -> 000000000000\nSection: [FV\nID: " +
            v +
            "\nProtectionMode (converted to VOLUME_Mode): 1\nDATE_DSCR: 203001010000 in future\n"
            "DATE_DSCR: VOL 202605050029 -> 000000000000\nACTION: 2\nBootAction -> 0\nSave previous "
            "section...\n"
            "AddProtectedVolume: " +
            v +
            " (Mode: PROTECTED, Action: 2)\nSection: [rv\n"
            "AccessMode (converted to RVOLUME_AccessMode): 2\nACTION: 1\nSave previous section...\n"
            "AddProtectedVolume:  (Mode: PROTECTED|INVISIBLE)\nSection: [RV\n"
            "AccessMode (converted to RVOLUME_AccessMode): 1\nSave previous section...\n"
            "AddProtectedVolume:  (Mode: PROTECTED)\nSection: [RV\nAccessMode (converted to "
            "RVOLUME_AccessMode): 0\n"
            "Save previous section...\nAddProtectedVolume: \nSection: [FV\nID: W\ngTesselEnabled = 1\n"
            "Save previous section...\nAddProtectedVolume: W\nParseConfig done.\n",
        said);
}

}  // namespace
