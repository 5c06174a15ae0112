// What the settings of a configuration text mean, line after line as formats/config_grammar.h reads them. A
// value that is not listed changes nothing, but for an action; a key in a section where it does not count says
// nothing.
#pragma once
#include "formats/config_grammar.h"

namespace config {

// The volume section that is being read, or was before a [Global] head.
struct VolumeSection {
    Span ID;                                    // at most kMostIdUnits
    std::uint32_t VOLUME_Mode;                  // 1: protected
    std::uint32_t RVOLUME_AccessMode;           // 0 none, 1 protected, 2 protected and invisible
    std::uint32_t BootMode = kBootModeDefault;  // its own
    std::uint32_t Action;                       // 0 none
    bool DiscardDue;                            // its discard date has been reached
    bool HasSettings;                           // something in it makes a list entry
};

struct Settings {
    SectionKind Kind = SectionKind::Global;
    VolumeSection Section{};
    std::uint32_t FVBootMode = 0;  // 0 or 1
    bool DiscardDue = false;       // that of FVNextDiscardTS
    bool TesselEnabled = false;
    bool RVProtect = false;
    bool RVInvisible = false;
};

// Takes the place of the section before, which the reader has saved if it wanted to. A [Global] head drops it.
inline void OpenSection(Settings* settings, SectionKind kind) {
    settings->Kind = kind;
    if (kind == SectionKind::Global)
        settings->Section.HasSettings = false;
    else
        settings->Section = {};
}

enum class Effect {
    None,      // no value, or the key does not count here
    Unlisted,  // the value is none of the key's
    Set,
    NoDate,
    DateClosed,  // the boot mode above is not the one that heeds a date
    DateOpen,    // to be compared with the clock, wherever it stands; ReachDate when it has come
};

// As AccessMode has it.
[[nodiscard]] constexpr std::uint32_t RemovableAccess(const Settings& settings) {
    return !settings.RVProtect ? 0 : settings.RVInvisible ? 2 : 1;
}

// The section's boot mode, the default resolved.
[[nodiscard]] constexpr std::uint32_t AtBoot(const Settings& settings) {
    return settings.Section.BootMode == kBootModeDefault ? settings.FVBootMode : settings.Section.BootMode;
}

inline void SetNumber(Settings* settings, Key key, std::uint32_t number) {
    VolumeSection& section = settings->Section;
    switch (key) {
        case Key::Protection:
            settings->TesselEnabled |= number == 1;
            return;
        case Key::RVAccessMode:
            settings->RVProtect = number != 0;
            settings->RVInvisible = number == 2;
            return;
        case Key::FVBootMode:
            settings->FVBootMode = number;
            return;
        case Key::ProtectionMode:
            section.VOLUME_Mode = number;
            return;
        case Key::BootMode:
            section.BootMode = number;
            if (number == kBootModeDefault) section.DiscardDue = settings->DiscardDue;
            return;
        case Key::BootAction:
            section.Action = number;
            return;
        default:
            section.RVOLUME_AccessMode = number == 3 ? RemovableAccess(*settings) : number;
    }
}

[[nodiscard]] inline Effect Apply(Settings* settings, const Line& line) {
    VolumeSection& section = settings->Section;
    if (line.value.Length() == 0) return Effect::None;
    if (line.key == Key::NextDiscardTS || line.key == Key::FVNextDiscardTS) {
        if (line.isNoDate) return Effect::NoDate;
        const bool global = line.key == Key::FVNextDiscardTS;
        return (global ? settings->FVBootMode : section.BootMode) == kBootModeKeep ? Effect::DateOpen
                                                                                   : Effect::DateClosed;
    }
    if (!Counts(line.key, settings->Kind)) return Effect::None;
    section.HasSettings |= settings->Kind != SectionKind::Global;
    if (line.key == Key::ID) {
        section.ID = line.value;
        if (section.ID.Length() > kMostIdUnits) section.ID.end = section.ID.begin + kMostIdUnits;
        return Effect::Set;
    }
    if (line.number != kUnlisted) {
        SetNumber(settings, line.key, line.number);
        return Effect::Set;
    }
    if (line.key == Key::BootAction) section.Action = 0;
    return Effect::Unlisted;
}

// The date of a line that was DateOpen has come. Returns whether the key counts here; if not, it changes
// nothing.
[[nodiscard]] inline bool ReachDate(Settings* settings, Key key) {
    if (!Counts(key, settings->Kind)) return false;
    if (key == Key::FVNextDiscardTS) {
        settings->DiscardDue = true;
    } else {
        settings->Section.DiscardDue = true;
        settings->Section.HasSettings = true;
    }
    return true;
}

}  // namespace config
