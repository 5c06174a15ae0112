// Changes of the configuration text. Each returns the new text; everything that it does not have to change
// stays as it was, character by character: unknown lines, comments, order, line ends. Each throws Failure when
// the text is such that the driver would not follow the change.
#pragma once
#include <optional>
#include <string>

namespace ctl {

enum class AtBoot { Discard, Keep };

struct Protection {
    std::optional<AtBoot> atBoot;  // as it stands if not given; Discard in a new section
    std::u16string until;          // a date, or empty for what stands there; needs AtBoot::Keep
};

// Also switches protection on where the text does not say Protection at all, as SetRemovable does for an access
// other than 0.
std::u16string ProtectVolume(const std::u16string& text, const std::u16string& volume, const Protection& how);
std::u16string UnprotectVolume(const std::u16string& text, const std::u16string& volume);
// For the next boot only: BootAction 1 or 2. The volume must be protected by the text.
std::u16string DiscardOnce(const std::u16string& text, const std::u16string& volume);
std::u16string MergeOnce(const std::u16string& text, const std::u16string& volume);
// The text itself when none is pending.
std::u16string CancelAction(const std::u16string& text, const std::u16string& volume);
// `access` as AccessMode has it: 0, 1 or 2. An empty `volume` is the default of all without a section.
std::u16string SetRemovable(const std::u16string& text, const std::u16string& volume, unsigned access);
std::u16string SetSwitch(const std::u16string& text, bool on);

}  // namespace ctl
