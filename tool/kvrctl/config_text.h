// Composes the configuration text that the driver reads at boot.
//
// The order matters to the reader: the master switch counts only for the volume sections behind it, and a
// discard date only when the boot mode that it belongs to stands above it in the same section.
#pragma once
#include <cstdint>
#include <string>
#include <vector>
#include "formats/kvr_ioctl.h"

namespace tool {

// What a boot does with the changes that were made since the volume's state was fixed.
enum class BootMode { Discard = 0, Keep = 1, Default = 2 };
// Something for the next boot only.
enum class BootAction { None = 0, Discard = 1, Merge = 2 };
enum class RemovableAccess { Free = 0, Protected = 1, Hidden = 2 };

inline constexpr char kNoDate[] = "000000000000";

struct FixedVolumeSection {
    std::u16string id;  // the volume device's name
    bool isProtected = true;
    BootMode mode = BootMode::Discard;
    std::string discardDate;  // YYYYMMDDhhmm in local time, or empty for none; needs BootMode::Keep
    BootAction action = BootAction::None;
};

struct RemovableVolumeSection {
    std::u16string id;
    RemovableAccess access = RemovableAccess::Protected;
};

struct Configuration {
    bool protection = true;  // the master switch
    RemovableAccess removable = RemovableAccess::Free;
    BootMode fixedMode = BootMode::Discard;  // what BootMode::Default stands for; not Default itself
    std::vector<FixedVolumeSection> fixed;
    std::vector<RemovableVolumeSection> removables;
};

// The text, ended by CR LF lines. Throws std::invalid_argument for a name that the text cannot hold and for a
// malformed or unreachable date.
std::u16string ComposeConfiguration(const Configuration& configuration);
// One section of it, with `number` in its head.
std::u16string ComposeSection(const FixedVolumeSection& section, std::size_t number);
std::u16string ComposeSection(const RemovableVolumeSection& section, std::size_t number);

// The text as the driver takes it: exactly KVR_CONFIG_BYTES, UTF-16LE, zeros behind the text. Throws
// std::invalid_argument when the text is too long.
std::vector<std::uint8_t> ConfigurationImage(const std::u16string& text);
// The reverse: without the zeros that fill the rest.
std::u16string ConfigurationText(const std::vector<std::uint8_t>& image);

// The value of `key` in the section of the volume `id` as the text has it, or empty.
std::string VolumeSetting(const std::u16string& text, const std::u16string& id, const std::string& key);

// Only ASCII is expected in what the tool prints; other characters become '?'.
std::string Narrow(const std::u16string& text);
std::u16string Widen(const std::string& text);

}  // namespace tool
