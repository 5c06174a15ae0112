// The configuration text's grammar: its lines, heads, keys and values. For the driver and for whoever reads the
// text elsewhere; formats/config_settings.h has what the settings mean.
//
// The text is UTF-16 of any length, in units of any 16-bit type. A token ends before a blank, a line end, '=',
// ':', a zero unit or the text's end. A line is a token and what follows it up to the line feed: a setting when
// the token is a key, a head, or nothing. Case does not matter, and no character outside ASCII stands for one
// inside.
#pragma once
#include <cstdint>

namespace config {

enum class SectionKind { Global, FixedVolume, RemovableVolume };

enum class Key {
    Protection,
    RVAccessMode,
    FVBootMode,
    FVNextDiscardTS,
    ID,
    ProtectionMode,
    BootMode,
    NextDiscardTS,
    BootAction,
    AccessMode,
};

struct KeyRule {
    const char* name;
    bool inGlobal, inFixed, inRemovable;  // the sections in which it counts
    std::uint32_t values;                 // it takes the digits below; 0: free text
};

inline constexpr KeyRule kKeyRules[] = {
    // in the order of Key
    {"Protection", true, false, false, 2}, {"RVAccessMode", true, false, false, 3},
    {"FVBootMode", true, false, false, 2}, {"FVNextDiscardTS", true, false, false, 0},
    {"ID", false, true, true, 0},          {"ProtectionMode", false, true, false, 2},
    {"BootMode", false, true, false, 3},   {"NextDiscardTS", false, true, false, 0},
    {"BootAction", false, true, false, 3}, {"AccessMode", false, false, true, 4},
};

inline constexpr char kGlobalHead[] = "[Global]";
inline constexpr char kFixedHead[] = "[FV";  // further text, and a ']' that may stand on a later line
inline constexpr char kRemovableHead[] = "[RV";
inline constexpr char kNoDate[] = "000000000000";
inline constexpr std::uint32_t kDateUnits = sizeof(kNoDate) - 1;  // YYYYMMDDhhmm
inline constexpr std::uint32_t kMostIdUnits = 64;

inline constexpr std::uint32_t kBootModeDiscard = 0;  // at every boot
inline constexpr std::uint32_t kBootModeKeep = 1;
inline constexpr std::uint32_t kBootModeDefault = 2;  // as FVBootMode says
inline constexpr std::uint32_t kActionDiscard = 1;    // at one boot
inline constexpr std::uint32_t kActionMerge = 2;

[[nodiscard]] constexpr const KeyRule& RuleOf(Key key) {
    return kKeyRules[static_cast<std::uint32_t>(key)];
}

[[nodiscard]] constexpr bool Counts(Key key, SectionKind kind) {
    const KeyRule& rule = RuleOf(key);
    return kind == SectionKind::Global        ? rule.inGlobal
           : kind == SectionKind::FixedVolume ? rule.inFixed
                                              : rule.inRemovable;
}

// Units of the text, the last not included.
struct Span {
    std::uint32_t begin, end;
    [[nodiscard]] constexpr std::uint32_t Length() const { return end - begin; }
};

enum class LineKind { Ignored, GlobalHead, VolumeHead, Setting };

inline constexpr std::uint32_t kUnlisted = 0xFFFFFFFF;

struct Line {
    LineKind kind;
    Span token;           // the line's first; of a volume's head the three characters that begin it
    std::uint32_t end;    // behind the line feed
    SectionKind section;  // heads: of what they open
    bool closed;          // volume heads: there is a ']'
    std::uint32_t behindHead;
    // Settings. A value without characters sets nothing.
    Key key;
    bool hasEquals;
    Span value;
    std::uint32_t number;  // the listed value, kUnlisted for any other
    bool isNoDate;
};

template <class Unit>
class Scanner {
    static_assert(sizeof(Unit) == 2);

public:
    Scanner(const Unit* text, std::uint32_t length) : text_(text), length_(length) {}

    // False where the reading ends for good: at the text's end, at a line that begins with '=', ':' or a zero
    // unit, and when nothing but blanks follows a key or [Global] in all the text; those count for nothing
    // then.
    [[nodiscard]] bool ReadLine(Line* line) {
        *line = {};
        if (!SkipWhiteSpace() || !GetToken(&line->token)) return false;
        ConsumeToken(line->token);
        Classify(line);
        const bool counts = ReadBehindToken(line);
        SkipLine();
        line->end = at_;
        return counts;
    }

    // Where the next line is looked for, or the reading has ended.
    [[nodiscard]] std::uint32_t At() const { return at_; }

private:
    // ---- Each returns whether text remains. ----

    bool SkipBlanks() {
        while (Remains() && IsBlank(text_[at_])) ++at_;
        return Remains();
    }

    bool SkipWhiteSpace() {
        while (Remains() && (IsBlank(text_[at_]) || IsLineEnd(text_[at_]))) ++at_;
        return Remains();
    }

    bool SkipLine() {
        SkipPast('\n');
        return Remains();
    }

    bool ConsumeToken(const Span& token) {
        at_ = token.end;
        return Remains();
    }

    bool Remains() const { return at_ < length_; }

    // The run at the cursor, which stays; returns whether it has characters.
    bool GetToken(Span* token) const {
        *token = {at_, at_};
        while (token->end < length_ && !EndsToken(text_[token->end])) ++token->end;
        return token->Length() != 0;
    }

    // Behind the next such unit, or to the end; returns whether there is one.
    bool SkipPast(char last) {
        while (Remains() && text_[at_] != static_cast<Unit>(last)) ++at_;
        if (!Remains()) return false;
        ++at_;
        return true;
    }

    // ---- lines ----

    void Classify(Line* line) const {
        if (Equals(line->token, kGlobalHead)) {
            line->kind = LineKind::GlobalHead;
        } else if (Equals(line->token, kFixedHead)) {
            line->kind = LineKind::VolumeHead;
            line->section = SectionKind::FixedVolume;
        } else if (Equals(line->token, kRemovableHead)) {
            line->kind = LineKind::VolumeHead;
            line->section = SectionKind::RemovableVolume;
        } else {
            FindKey(line);
        }
    }

    void FindKey(Line* line) const {
        std::uint32_t index = 0;
        for (const KeyRule& rule : kKeyRules) {
            if (Equals(line->token, rule.name)) {
                line->kind = LineKind::Setting;
                line->key = static_cast<Key>(index);
            }
            ++index;
        }
    }

    bool ReadBehindToken(Line* line) {
        line->behindHead = at_;
        switch (line->kind) {
            case LineKind::GlobalHead:
                return SkipBlanks();
            case LineKind::VolumeHead:
                line->closed = SkipPast(']');
                line->behindHead = at_;
                return true;
            case LineKind::Setting:
                return SkipBlanks() && ReadValue(line);
            default:
                return true;
        }
    }

    bool ReadValue(Line* line) {
        line->hasEquals = text_[at_] == '=';
        if (!line->hasEquals) return true;
        ++at_;
        SkipBlanks();
        GetToken(&line->value);
        line->number = NumberOf(line->value, RuleOf(line->key).values);
        line->isNoDate = Equals(line->value, kNoDate);
        return true;
    }

    std::uint32_t NumberOf(const Span& value, std::uint32_t values) const {
        const std::uint32_t digit = value.Length() == 1 ? text_[value.begin] - std::uint32_t{'0'} : kUnlisted;
        return digit < values ? digit : kUnlisted;
    }

    // ---- characters ----

    static constexpr bool IsBlank(Unit c) { return c == ' ' || c == '\t'; }
    static constexpr bool IsLineEnd(Unit c) { return c == '\r' || c == '\n'; }
    static constexpr bool EndsToken(Unit c) {
        return IsBlank(c) || IsLineEnd(c) || c == '=' || c == ':' || c == 0;
    }
    static constexpr std::uint32_t Upcase(std::uint32_t c) {
        return c >= 'a' && c <= 'z' ? c - ('a' - 'A') : c;
    }

    bool Equals(const Span& token, const char* word) const {
        std::uint32_t at = token.begin;
        while (at < token.end && *word != 0 && Upcase(text_[at]) == Upcase(static_cast<std::uint32_t>(*word))) {
            ++at;
            ++word;
        }
        return at == token.end && *word == 0;
    }

    const Unit* text_;
    std::uint32_t length_;
    std::uint32_t at_ = 0;
};

// The units of an ID that are the volume's name: those before the first comma or semicolon.
template <class Unit>
[[nodiscard]] constexpr std::uint32_t NameLength(const Unit* id, std::uint32_t length) {
    std::uint32_t count = 0;
    while (count < length && id[count] != ',' && id[count] != ';') ++count;
    return count;
}

}  // namespace config
