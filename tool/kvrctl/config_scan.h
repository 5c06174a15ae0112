// Reads the configuration text with the driver's own scanner and rules, and remembers where everything stood:
// what `config check` tells and what the edits change rests on it.
#pragma once
#include <cstddef>
#include <optional>
#include <string>
#include <vector>
#include "formats/config_settings.h"

namespace ctl {

using config::Key;
using config::SectionKind;

// Positions are in characters from the text's first, lines count from 1.
struct TextLine : config::Line {
    std::size_t line;
};

struct Setting : TextLine {
    std::u16string text;  // of the value
    bool taken = false;   // the driver acts on it
};

// What the driver makes of a volume section.
struct VolumeSettings {
    std::u16string id;  // as the driver keeps it
    bool isProtected = false;
    unsigned bootMode = 2;     // 0 discard, 1 keep, 2 by default; `atBoot` has the default resolved
    unsigned atBoot = 0;       // 0 or 1
    std::u16string date;       // its own or the default one that counts; empty for none
    unsigned action = 0;       // 0 none, 1 discard, 2 merge
    unsigned accessMode = 0;   // 0 none, 1 protected, 2 protected and hidden
    bool hasSettings = false;  // without, the section does not exist
    bool switchWasOn = false;  // the master switch, when the section ended
    bool isListed = false;     // it counts: complete, and the first of its name
};

struct Section {
    SectionKind kind = SectionKind::Global;
    std::size_t line = 0;                  // of its head; 0 for what stands before any head
    std::size_t begin = 0, bodyBegin = 0;  // of the head and of what follows its line
    std::size_t bracket = 0;               // behind the head's ']'
    bool closed = true;                    // there is a ']'
    bool oneLine = true;                   // ... on the head's own line
    bool dropped = false;                  // by a [Global] head behind it
    std::vector<Setting> settings;
    VolumeSettings volume;
};

struct ConfigScan {
    std::vector<Section> sections;  // the first is what stands before any head
    std::vector<TextLine> ignored;  // lines that mean nothing to the driver
    // Where the driver stops for good although text follows.
    std::optional<std::size_t> stop;
    bool protection = false;
    unsigned removableAccess = 0;  // as RVAccessMode

    // The section that counts for the volume, or null.
    const Section* Find(const std::u16string& volume) const;
    // What its last line of that key says in that section; empty without.
    std::u16string ValueOf(const std::u16string& volume, Key key) const;
};

// `text` is what the driver gets, without the zeros that fill its buffer; only the first KVR_CONFIG_BYTES of it
// are read. A date that has been reached is not acted on.
ConfigScan ScanConfig(const std::u16string& text);

// The number of the line on which the character stands.
std::size_t LineAt(const std::u16string& text, std::size_t position);
// Is it a minute of the calendar, as YYYYMMDDhhmm?
bool IsDate(const std::u16string& value);

}  // namespace ctl
