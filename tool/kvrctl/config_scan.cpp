#include "tool/kvrctl/config_scan.h"
#include <algorithm>
#include <iterator>
#include "formats/kvr_ioctl.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

constexpr std::size_t kMostCharacters = KVR_CONFIG_BYTES / 2;
constexpr std::size_t kMostIdCharacters = KVR_NAME_CHARS;

struct KeyRow {
    Key key;
    const char* name;
    bool global, fixed, removable;
    char16_t lastValue;  // values are the digits from 0 to this; 0: free text
};
constexpr KeyRow kKeys[] = {
    {Key::Protection, "Protection", true, false, false, u'1'},
    {Key::RVAccessMode, "RVAccessMode", true, false, false, u'2'},
    {Key::FVBootMode, "FVBootMode", true, false, false, u'1'},
    {Key::FVNextDiscardTS, "FVNextDiscardTS", true, false, false, 0},
    {Key::ID, "ID", false, true, true, 0},
    {Key::ProtectionMode, "ProtectionMode", false, true, false, u'1'},
    {Key::BootMode, "BootMode", false, true, false, u'2'},
    {Key::NextDiscardTS, "NextDiscardTS", false, true, false, 0},
    {Key::BootAction, "BootAction", false, true, false, u'2'},
    {Key::AccessMode, "AccessMode", false, false, true, u'3'},
};

const KeyRow& RowOf(Key key) {
    return *std::find_if(std::begin(kKeys), std::end(kKeys), [&](const KeyRow& row) { return row.key == key; });
}

bool EqualsAscii(const std::u16string& token, const char* name) {
    return EqualIgnoringCase(token, FromUtf8(name, "a key"));
}

const KeyRow* FindKey(const std::u16string& token) {
    for (const KeyRow& row : kKeys) {
        if (EqualsAscii(token, row.name)) return &row;
    }
    return nullptr;
}

bool IsBlank(char16_t c) {
    return c == u' ' || c == u'\t';
}
bool IsLineEnd(char16_t c) {
    return c == u'\r' || c == u'\n';
}
bool EndsToken(char16_t c) {
    return IsBlank(c) || IsLineEnd(c) || c == u'=' || c == u':' || c == 0;
}

// The driver's cursor over its whole buffer, the zeros behind the text included.
class Cursor {
public:
    explicit Cursor(const std::u16string& text) : text_(text.substr(0, kMostCharacters)) {
        text_.resize(kMostCharacters, 0);
    }
    bool AtEnd() const { return at_ == text_.size(); }
    std::size_t At() const { return at_; }
    char16_t Character() const { return text_[at_]; }
    void Step(std::size_t characters) { at_ += characters; }
    void SkipBlanks() {
        while (!AtEnd() && IsBlank(text_[at_])) ++at_;
    }
    void SkipWhiteSpace() {
        while (!AtEnd() && (IsBlank(text_[at_]) || IsLineEnd(text_[at_]))) ++at_;
    }
    // Past the next `last`, or to the end; false when there is none.
    bool SkipPast(char16_t last) {
        const std::size_t found = text_.find(last, at_);
        at_ = found == text_.npos ? text_.size() : found + 1;
        return found != text_.npos;
    }
    std::u16string Token() const {
        std::size_t end = at_;
        while (end < text_.size() && !EndsToken(text_[end])) ++end;
        return text_.substr(at_, end - at_);
    }
    bool HasLineFeed(std::size_t from, std::size_t to) const {
        return text_.substr(from, to - from).find(u'\n') != text_.npos;
    }

private:
    std::u16string text_;
    std::size_t at_ = 0;
};

class Scanner {
public:
    explicit Scanner(const std::u16string& text) : text_(text), cursor_(text) {
        scan_.sections.emplace_back();
        Current().volume = {};
    }

    ConfigScan Run() {
        while (ReadLine()) {
        }
        EndSection(std::min(cursor_.At(), text_.size()));
        Save();
        return std::move(scan_);
    }

private:
    Section& Current() { return scan_.sections.back(); }
    std::size_t Line(std::size_t position) const { return LineAt(text_, position); }

    bool ReadLine() {
        cursor_.SkipWhiteSpace();
        if (cursor_.AtEnd()) return false;
        const std::size_t begin = cursor_.At();
        const std::u16string token = cursor_.Token();
        if (token.empty()) {
            if (begin < text_.size()) scan_.stop = begin;
            return false;
        }
        if (EqualsAscii(token, "[Global]")) return ReadGlobalHead(begin, token.size());
        if (EqualsAscii(token, "[FV")) return ReadVolumeHead(begin, SectionKind::Fixed);
        if (EqualsAscii(token, "[RV")) return ReadVolumeHead(begin, SectionKind::Removable);
        if (const KeyRow* row = FindKey(token)) return ReadSetting(begin, *row, token.size());
        cursor_.SkipPast(u'\n');
        scan_.ignored.push_back({Line(begin), begin, cursor_.At(), token});
        return true;
    }

    // A volume section that is still open is dropped, unless the buffer ends here.
    bool ReadGlobalHead(std::size_t begin, std::size_t length) {
        cursor_.Step(length);
        const std::size_t bracket = cursor_.At();
        cursor_.SkipBlanks();
        if (cursor_.AtEnd()) return false;
        EndSection(begin);
        Current().dropped = Current().volume.hasSettings;
        Open(SectionKind::Global, begin, bracket);
        return true;
    }

    bool ReadVolumeHead(std::size_t begin, SectionKind kind) {
        cursor_.Step(3);
        const bool closed = cursor_.SkipPast(u']');
        const std::size_t bracket = cursor_.At();
        EndSection(begin);
        Save();
        Open(kind, begin, bracket);
        Current().closed = closed;
        Current().oneLine = !cursor_.HasLineFeed(begin, bracket);
        return true;
    }

    void Open(SectionKind kind, std::size_t begin, std::size_t bracket) {
        cursor_.SkipPast(u'\n');
        Section section;
        section.kind = kind;
        section.line = Line(begin);
        section.begin = begin;
        section.bracket = bracket;
        section.bodyBegin = std::min(cursor_.At(), text_.size());
        scan_.sections.push_back(std::move(section));
    }

    bool ReadSetting(std::size_t begin, const KeyRow& row, std::size_t length) {
        cursor_.Step(length);
        cursor_.SkipBlanks();
        if (cursor_.AtEnd()) return false;
        Setting setting{row.key, Line(begin), begin, 0, 0, 0, cursor_.Character() == u'=', {}};
        if (setting.hasEquals) {
            cursor_.Step(1);
            cursor_.SkipBlanks();
            if (cursor_.AtEnd()) return false;
            setting.value = cursor_.Token();
        }
        setting.valueBegin = cursor_.At();
        setting.valueEnd = cursor_.At() + setting.value.size();
        cursor_.SkipPast(u'\n');
        setting.end = std::min(cursor_.At(), text_.size());
        if (!setting.value.empty() && Counts(row.key, Current().kind)) Apply(setting, row);
        Current().settings.push_back(std::move(setting));
        return true;
    }

    // ---- what the driver makes of a value ----

    void Apply(Setting& setting, const KeyRow& row) {
        VolumeSettings& volume = Current().volume;
        if (row.lastValue == 0) {
            ApplyText(setting);
        } else {
            const bool listed =
                setting.value.size() == 1 && setting.value[0] >= u'0' && setting.value[0] <= row.lastValue;
            if (listed) ApplyNumber(row.key, setting.value[0] - u'0');
            // What the driver does not know it takes for none of the actions.
            if (!listed && row.key == Key::BootAction) volume.action = 0;
            setting.taken = listed;
        }
        if (row.fixed || row.removable) volume.hasSettings |= row.key != Key::NextDiscardTS;
    }

    void ApplyNumber(Key key, unsigned value) {
        VolumeSettings& volume = Current().volume;
        switch (key) {
            case Key::Protection:
                scan_.protection |= value == 1;
                return;
            case Key::RVAccessMode:
                scan_.removableAccess = value;
                return;
            case Key::FVBootMode:
                scan_.fixedBootMode = value;
                return;
            case Key::ProtectionMode:
                volume.isProtected = value == 1;
                return;
            case Key::BootMode:
                volume.bootMode = value;
                if (value == 2) volume.date = scan_.fixedDate;
                return;
            case Key::BootAction:
                volume.action = value;
                return;
            default:
                volume.accessMode = value == 3 ? scan_.removableAccess : value;
        }
    }

    void ApplyText(Setting& setting) {
        VolumeSettings& volume = Current().volume;
        if (setting.key == Key::ID) {
            volume.id = setting.value.substr(0, kMostIdCharacters);
            setting.taken = true;
            return;
        }
        const bool global = setting.key == Key::FVNextDiscardTS;
        std::u16string& date = global ? scan_.fixedDate : volume.date;
        const bool open = (global ? scan_.fixedBootMode : volume.bootMode) == 1;
        setting.taken = setting.value == kNoDate || (open && IsDate(setting.value));
        if (setting.value != kNoDate && setting.taken) date = setting.value;
    }

    void EndSection(std::size_t end) { Current().end = end; }

    void Save() {
        Section& section = Current();
        VolumeSettings& volume = section.volume;
        if (section.kind == SectionKind::Global || !volume.hasSettings) return;
        volume.id = volume.id.substr(0, volume.id.find_first_of(u",;"));
        volume.atBoot = volume.bootMode == 2 ? scan_.fixedBootMode : volume.bootMode;
        volume.isProtected |= section.kind == SectionKind::Removable && volume.accessMode != 0;
        volume.switchWasOn = scan_.protection;
        volume.isListed = scan_.Find(volume.id) == nullptr;
    }

    const std::u16string& text_;
    Cursor cursor_;
    ConfigScan scan_;
};

}  // namespace

const char* KeyName(Key key) {
    return RowOf(key).name;
}

bool Counts(Key key, SectionKind kind) {
    const KeyRow& row = RowOf(key);
    return kind == SectionKind::Global ? row.global : kind == SectionKind::Fixed ? row.fixed : row.removable;
}

const Section* ConfigScan::Find(const std::u16string& volume) const {
    for (const Section& section : sections) {
        if (section.volume.isListed && EqualIgnoringCase(section.volume.id, volume)) return &section;
    }
    return nullptr;
}

ConfigScan ScanConfig(const std::u16string& text) {
    return Scanner(text).Run();
}

std::size_t LineAt(const std::u16string& text, std::size_t position) {
    const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(position, text.size()));
    return 1 + static_cast<std::size_t>(std::count(text.begin(), end, u'\n'));
}

bool IsDate(const std::u16string& value) {
    if (value.size() != 12) return false;
    if (!std::all_of(value.begin(), value.end(), [](char16_t c) { return c >= u'0' && c <= u'9'; }))
        return false;
    const auto number = [&](std::size_t at, std::size_t digits) {
        unsigned result = 0;
        for (char16_t c : value.substr(at, digits)) result = result * 10 + (c - u'0');
        return result;
    };
    const unsigned year = number(0, 4), month = number(4, 2), day = number(6, 2);
    const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12 || day < 1) return false;
    const unsigned days = month == 2 && leap ? 29 : kDays[month - 1];
    return day <= days && number(8, 2) <= 23 && number(10, 2) <= 59;
}

}  // namespace ctl
