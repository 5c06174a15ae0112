// Writes configuration texts, for hosted programs. The order matters to the reader: the master switch counts
// for the sections behind it only, and a discard date only when its boot mode stands above it in the same
// section.
#pragma once
#include <string>
#include "formats/config_grammar.h"

namespace config {

inline constexpr char16_t kLineEnd[] = u"\r\n";

[[nodiscard]] inline std::u16string Digits(std::size_t number) {
    const std::string digits = std::to_string(number);
    return {digits.begin(), digits.end()};
}

// A line of its own, without the line end.
[[nodiscard]] inline std::u16string SettingText(Key key, const std::u16string& value) {
    const std::string name = RuleOf(key).name;
    return std::u16string(name.begin(), name.end()) + u" = " + value;
}

// The following are whole lines. `number` tells the reader's sections apart, nothing else.

[[nodiscard]] inline std::u16string SettingLine(Key key, std::size_t value) {
    return SettingText(key, Digits(value)) + kLineEnd;
}

[[nodiscard]] inline std::u16string VolumeHead(SectionKind kind, std::size_t number, const std::u16string& id) {
    return (kind == SectionKind::FixedVolume ? u"[FV " : u"[RV ") + Digits(number) + u"]" + kLineEnd +
           SettingText(Key::ID, id) + kLineEnd;
}

[[nodiscard]] inline std::u16string GlobalSection(bool protection, std::uint32_t removableAccess) {
    return std::u16string(u"[Global]") + kLineEnd + SettingLine(Key::Protection, protection) +
           SettingLine(Key::RVAccessMode, removableAccess);
}

struct FixedVolumeText {
    std::u16string id;  // the volume device's name
    bool isProtected = true;
    std::uint32_t bootMode = kBootModeDiscard;
    std::uint32_t action = 0;
    std::u16string date = {};  // YYYYMMDDhhmm in local time, or empty for none; needs kBootModeKeep
};

[[nodiscard]] inline std::u16string FixedSection(const FixedVolumeText& section, std::size_t number) {
    std::u16string text = VolumeHead(SectionKind::FixedVolume, number, section.id) +
                          SettingLine(Key::ProtectionMode, section.isProtected) +
                          SettingLine(Key::BootMode, section.bootMode);
    if (!section.date.empty()) text += SettingText(Key::NextDiscardTS, section.date) + kLineEnd;
    return text + SettingLine(Key::BootAction, section.action);
}

[[nodiscard]] inline std::u16string RemovableSection(const std::u16string& id, std::uint32_t access,
                                                     std::size_t number) {
    return VolumeHead(SectionKind::RemovableVolume, number, id) + SettingLine(Key::AccessMode, access);
}

}  // namespace config
