// What `config check` finds, and that what it calls clean is taken by the driver's own parser as it reads.
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <sstream>
#include "platform/host/sync/clock.h"
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "config/storage.h"
#include "driver/globals.h"
#include "platform/host/memory/pool.h"
#include "tool/kvrctl/config_check.h"
#include "tool/kvrctl/config_scan.h"
#include "tool/kvrctl/unicode.h"

namespace {

using namespace ctl;

const std::string kOn = "[Global]\r\nProtection=1\r\n";                          // lines 1 and 2
const std::string kVolume = "[FV 1]\r\nID=\\Device\\V\r\nProtectionMode=1\r\n";  // three lines

std::string Found(const std::u16string& text) {
    std::string found;
    for (const Finding& finding : CheckConfig(text))
        found += std::to_string(finding.line) + (finding.severity == Severity::Error ? "E " : "W ") +
                 finding.text + "\n";
    return found;
}

bool HasLine(const std::string& found, const std::string& begin, const std::string& words) {
    std::istringstream lines(found);
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(begin) && line.find(words) != line.npos) return true;
    return false;
}

TEST(ConfigCheck, FindsWhatTheDriverWouldIgnore) {
    const struct {
        std::string text, line, words;  // of a finding
    } table[] = {
        {"[Globals]\r\n", "1E", "no section head"},
        {kOn + "[FV1]\r\n", "3E", "no section head"},
        {kOn + "[FV 1\r\nID=\\Device\\V\r\n", "3E", "swallows the rest"},
        {kOn + "[FV 1]ID=\\Device\\V\r\nProtectionMode=1\r\nID=\\Device\\V", "3E",
         "behind the head is ignored"},
        {"[FV 1]\r\nID=\\Device\\V\r\n" + kOn, "1E", "forget it"},
        {"Protection = 1\r\n" + kVolume + kVolume, "5E", "stands above"},
        {kOn + kVolume + "[RV 1]\r\nID=\\device\\v\r\n", "6E", "stands above"},
        {kOn + "Shield=1\r\n", "3E", "'Shield' is no key"},
        {kOn + "=\r\n" + kVolume, "3E", "nothing from here on counts"},
        {kOn + ": x\r\n", "3E", "nothing from here on counts"},
        {kOn + "BootMode=1\r\n", "3E", "counts only in an [FV section"},
        {kOn + kVolume + "AccessMode=1\r\n", "6E", "counts only in an [RV section"},
        {kOn + kVolume + "BootMode\r\n", "6E", "not followed by '='"},
        {kOn + kVolume + "BootMode:1\r\n", "6E", "not followed by '='"},
        {kOn + kVolume + "BootMode=\r\n", "6E", "has no value"},
        {kOn + kVolume + "BootMode=3\r\n", "6E", "no value of BootMode; it takes 0, 1 or 2"},
        {kOn + kVolume + "BootMode=1;x\r\n", "6E", "no value of BootMode"},
        {kOn + "FVBootMode=2\r\n", "3E", "it takes 0 or 1"},
        {kOn + "RVAccessMode=3\r\n", "3E", "it takes 0, 1 or 2"},
        {kOn + kVolume + "BootMode=1 keep\r\n", "6W", "'keep' behind the value"},
        {kOn + kVolume + "BootMode=1\r\nBootMode=1\r\n", "7E", "stands on line 6 as well"},
        {kOn + "[FV 1]\r\nProtectionMode=1\r\n", "3E", "names no volume"},
        {kOn + "[FV 1]\r\nID=\\Device\\V,x\r\n", "4E", "takes it for '\\Device\\V'"},
        {kOn + "[FV 1]\r\nID=\\Device\\a b\r\n", "4E", "'b' behind the value"},
        {kOn + "[FV 1]\r\nID=\\Device\\" + std::string(60, 'x') + "\r\n", "4E", "longer than 64"},
        {kOn + "[FV 1]\r\nID=C\r\n", "4W", "no volume device's name"},
        {kOn + "[FV 1]\r\n", "3W", "says nothing"},
        {kOn + kVolume + "NextDiscardTS=202712310000\r\nBootMode=1\r\n", "6E", "only behind BootMode=1"},
        {kOn + kVolume + "BootMode=2\r\nNextDiscardTS=202712310000\r\n", "7E", "only behind BootMode=1"},
        {kOn + kVolume + "BootMode=1\r\nNextDiscardTS=20271231000\r\n", "7E", "is no date"},
        {kOn + kVolume + "BootMode=1\r\nNextDiscardTS=202702300000\r\n", "7E", "is no date"},
        {kOn + "FVNextDiscardTS=202712310000\r\nFVBootMode=1\r\n", "3E", "only behind FVBootMode=1"},
        {kOn + "FVBootMode=1\r\nFVNextDiscardTS=202712310000\r\n" + kVolume + "BootMode=1\r\n", "4W", "no use"},
        {kOn + "[FV 1]\r\nID=\\Device\\V\r\nBootAction=2\r\n", "5W", "does nothing"},
        {kOn + "Protection=1\r\n", "3E", "stands on line 2 as well"},
        {kOn + kVolume + "# a note\r" + "BootMode=1\r\n", "6E", "carriage return"},
        {kOn + kVolume + "; " + std::string(4096, 'x') + "\r\n", "6E", "no further than 4096"},
        {std::string("\xEF\xBB\xBF") + "# x\r\n", "1E", "byte-order mark"},
    };
    for (const auto& row : table) {
        const std::string found = Found(FromUtf8(row.text, "row"));
        EXPECT_TRUE(HasLine(found, row.line + " ", row.words)) << row.text << "\n" << found;
    }
    const std::string late = "[FV 1]\nID=\\Device\\V\nProtectionMode=1\n[FV 2]\n" + kOn;
    EXPECT_NE(std::string::npos,
              Found(FromUtf8(late, "late")).find("1E Protection=1 stands below this section"));
    EXPECT_NE(std::string::npos, Found(u"; x\0y\n" + std::u16string(1, u'\0') + u"a").find("zero character"));
    EXPECT_EQ(
        "", Found(FromUtf8("; note = 1\n# x: y\n// z\n" + kOn + "\n" + kVolume + "BootMode=1 ; kept\n", "ok")));
}

// ---- the driver's parser against a reading that knows nothing of order -----------------------------------

struct Reading {
    std::vector<std::pair<std::string, unsigned>> entries;  // names in lower case, and the list's flags
    bool protection = false;
    unsigned removable = 0;
    bool operator==(const Reading&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Reading& reading) {
    out << "protection " << reading.protection << " removable " << reading.removable;
    for (const auto& [name, flags] : reading.entries)
        out << " " << name << ":" << std::hex << flags << std::dec;
    return out;
}

std::string Lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::string Strip(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t\r");
    return first == text.npos ? "" : text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// A person's reading: sections with a key and a value per line, each said once, wherever it stands.
using Settings = std::map<std::string, std::string>;
struct PlainSection {
    std::string head;
    Settings settings;
};

std::vector<PlainSection> PlainSections(const std::string& text) {
    std::vector<PlainSection> sections = {{"[global]", {}}};
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        line = Lower(Strip(line));
        if (line.empty() || line[0] == ';' || line[0] == '#' || line.starts_with("//")) continue;
        if (line[0] == '[') {
            sections.push_back({line.starts_with("[global]") ? "[global]" : line.substr(0, 3), {}});
            continue;
        }
        const std::size_t equals = line.find('=');
        if (equals == line.npos) continue;
        const std::string value = Strip(line.substr(equals + 1));
        sections.back().settings[Strip(line.substr(0, equals))] = value.substr(0, value.find_first_of(" \t"));
    }
    return sections;
}

std::string ValueOf(const Settings& settings, const std::string& key, const std::string& otherwise) {
    const auto found = settings.find(key);
    return found == settings.end() ? otherwise : found->second;
}

constexpr char kNow[] = "202611221200";
bool IsOver(const std::string& date) {
    return date != "000000000000" && !date.empty() && date <= kNow;
}

unsigned FixedFlags(const Settings& global, const Settings& section) {
    if (ValueOf(section, "protectionmode", "0") != "1") return 0;
    const std::string mode = ValueOf(section, "bootmode", "2");
    const bool byDefault = mode == "2";
    const std::string atBoot = byDefault ? ValueOf(global, "fvbootmode", "0") : mode;
    const bool over = atBoot == "1" && IsOver(byDefault ? ValueOf(global, "fvnextdiscardts", "")
                                                        : ValueOf(section, "nextdiscardts", ""));
    const std::string action = ValueOf(section, "bootaction", "0");
    const unsigned what = action == "2" ? 0x20u : action == "1" || atBoot == "0" || over ? 0x10u : 0u;
    return 0x101u | what;
}

unsigned RemovableFlags(const Settings& global, const Settings& section) {
    std::string access = ValueOf(section, "accessmode", "0");
    if (access == "3") access = ValueOf(global, "rvaccessmode", "0");
    return access == "1" ? 0x101u : access == "2" ? 0x003u : 0u;
}

Reading AsItReads(const std::string& text) {
    const std::vector<PlainSection> sections = PlainSections(text);
    Settings global;
    for (const PlainSection& section : sections)
        if (section.head == "[global]") global.insert(section.settings.begin(), section.settings.end());
    Reading reading;
    reading.protection = ValueOf(global, "protection", "0") == "1";
    reading.removable = static_cast<unsigned>(ValueOf(global, "rvaccessmode", "0")[0] - '0');
    for (const PlainSection& section : sections) {
        if (section.head == "[global]") continue;
        const unsigned flags = section.head == "[fv" ? FixedFlags(global, section.settings)
                                                     : RemovableFlags(global, section.settings);
        reading.entries.emplace_back(ValueOf(section.settings, "id", ""), reading.protection ? flags : 0);
    }
    return reading;
}

Reading AsTheDriverReads(const std::u16string& text) {
    host::SetSystemTime(host::TimeOf(2026, 11, 22, 12));
    InitializeGlobals();
    std::vector<char16_t> image(KVR_CONFIG_BYTES / 2, u'\0');
    std::copy_n(text.begin(), std::min(text.size(), image.size()), image.begin());
    ParseConfig(reinterpret_cast<PWCHAR>(image.data()), KVR_CONFIG_BYTES);
    Reading reading;
    reading.protection = gTesselEnabled != 0;
    reading.removable = gRVProtect ? gRVInvisible ? 2 : 1 : 0;
    for (PROTECTED_VOLUME* entry = gProtectedVolumeList; entry; entry = entry->Next)
        reading.entries.emplace_back(
            Lower(ToUtf8(std::u16string_view(reinterpret_cast<const char16_t*>(entry->Name.Buffer),
                                             entry->Name.Length / 2))),
            entry->Flags);
    gProtectedVolumeList = nullptr;
    host::PoolReclaimAll();
    host::FollowRealClock();
    return reading;
}

// The scanner's own account of the same, for any text.
Reading AsTheScanReads(const std::u16string& text) {
    const ConfigScan scan = ScanConfig(text);
    Reading reading;
    reading.protection = scan.protection;
    reading.removable = scan.removableAccess;
    for (const Section& section : scan.sections) {
        const VolumeSettings& volume = section.volume;
        if (!volume.isListed) continue;
        unsigned flags = 0;
        if (section.kind == SectionKind::Fixed && volume.isProtected) {
            const bool drops = volume.atBoot == 0 || volume.action == 1 || IsOver(ToUtf8(volume.date));
            flags = 0x101u | (volume.action == 2 ? 0x20u : drops ? 0x10u : 0u);
        }
        if (section.kind == SectionKind::Removable)
            flags = volume.accessMode == 1 ? 0x101u : volume.accessMode == 2 ? 3u : 0u;
        reading.entries.emplace_back(Lower(ToUtf8(volume.id)), volume.switchWasOn ? flags : 0);
    }
    return reading;
}

class TextMaker {
public:
    explicit TextMaker(unsigned seed) : random_(seed) {}
    // Mostly sound, with a slip here and there.
    std::string Make() {
        std::string text;
        if (Chance(90)) text += Global();
        for (unsigned sections = Below(4); sections != 0; --sections) text += Volume();
        if (Chance(5)) text += Global();
        for (unsigned slips = Chance(60) ? 0 : 1 + Below(2); slips != 0; --slips) Slip(text);
        return text;
    }

private:
    unsigned Below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
    bool Chance(unsigned percent) { return Below(100) < percent; }
    std::string One(std::initializer_list<const char*> choices) {
        return choices.begin()[Below(static_cast<unsigned>(choices.size()))];
    }
    std::string End() { return One({"\n", "\r\n", "\r\n", " \n", " ; note\r\n"}); }
    std::string Line(const std::string& key, const std::string& value) {
        return key + One({"=", " = ", "= "}) + value + End();
    }

    std::string Global() {
        std::string text = One({"[Global]", "[GLOBAL]"}) + End();
        if (Chance(90)) text += Line("Protection", One({"1", "1", "1", "0"}));
        if (Chance(40)) text += Line("RVAccessMode", One({"0", "1", "2"}));
        const bool keeps = Chance(50);
        if (keeps) text += Line("FVBootMode", "1");
        if (keeps && Chance(60)) text += Line("FVNextDiscardTS", Date());
        return text;
    }
    std::string Date() {
        return One({"000000000000", "202611221200", "202611221201", "202001010000", "203001010000"});
    }

    std::string Volume() {
        const bool fixed = Chance(70);
        std::string text = One({"\r\n", "", "; a volume\n"});
        text += (fixed ? One({"[FV ", "[fv ", "[FV:"}) : std::string("[RV ")) + std::to_string(Below(9)) + "]" +
                End();
        text += Line("ID", "\\Device\\HarddiskVolume" + std::to_string(Below(12)));
        if (!fixed) return text + Line("AccessMode", One({"0", "1", "2", "3"}));
        text += Line("ProtectionMode", One({"1", "1", "0"}));
        const std::string mode = One({"0", "1", "2", ""});
        if (!mode.empty()) text += Line("BootMode", mode);
        if (mode == "1" && Chance(60)) text += Line("NextDiscardTS", Date());
        if (Chance(30)) text += Line("BootAction", One({"0", "1", "2"}));
        return text;
    }

    void Slip(std::string& text) {
        const std::size_t at = text.empty() ? 0 : Below(static_cast<unsigned>(text.size()));
        if (Chance(35)) return SwapLines(text);
        if (Chance(50))
            text.insert(at, One({"=", ":", "]", "[", "\n", "\r", " ", "1", ";", ",", "x", "\t", "[Global]\n",
                                 "Protection=1\n", "BootMode=1\n", "NextDiscardTS=202001010000\n",
                                 "\n[FV 7]\nID=\\Device\\x\nProtectionMode=1\n", "[RV"}));
        else
            text.erase(at, 1 + Below(12));
    }
    void SwapLines(std::string& text) {
        std::vector<std::string> lines;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) lines.push_back(line + "\n");
        if (lines.size() < 2) return;
        std::swap(lines[Below(static_cast<unsigned>(lines.size()))],
                  lines[Below(static_cast<unsigned>(lines.size()))]);
        text.clear();
        for (const std::string& line : lines) text += line;
    }

    std::mt19937 random_;
};

TEST(ConfigCheck, CleanTextsAreTakenByTheDriverAsTheyRead) {
    unsigned clean = 0, flagged = 0, wrong = 0;
    for (unsigned seed = 0; seed < 6000 && wrong < 3; ++seed) {
        const std::string text = TextMaker(seed).Make();
        const std::u16string wide = FromUtf8(text, "text");
        const Reading driver = AsTheDriverReads(wide);
        EXPECT_EQ(driver, AsTheScanReads(wide)) << seed << "\n" << text;
        if (!CheckConfig(wide).empty()) {
            ++flagged;
            continue;
        }
        ++clean;
        EXPECT_EQ(driver, AsItReads(text)) << seed << "\n" << text;
        wrong += driver == AsItReads(text) && driver == AsTheScanReads(wide) ? 0 : 1;
    }
    EXPECT_GT(clean, 1000u);
    EXPECT_GT(flagged, 1000u);
}

// The very last character of the buffer is the driver's as well.
TEST(ConfigCheck, FullBuffer) {
    for (const std::string last : {"[Global]", "BootMode", "BootMode=", "BootMode=1", "[RV 1", "x"}) {
        const std::string text = kOn + kVolume;
        std::string filler(4096 - text.size() - last.size() - 2, ' ');
        const std::u16string wide = FromUtf8(text + ";" + filler + "\n" + last, "full");
        ASSERT_EQ(4096u, wide.size());
        EXPECT_EQ(AsTheDriverReads(wide), AsTheScanReads(wide)) << last;
        EXPECT_EQ(AsTheDriverReads(wide + u"\nBootMode=0\n"), AsTheScanReads(wide + u"\nBootMode=0\n")) << last;
    }
}

}  // namespace
