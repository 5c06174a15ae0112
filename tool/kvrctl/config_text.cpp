#include "tool/kvrctl/config_text.h"
#include <algorithm>
#include <stdexcept>
#include <string_view>

namespace tool {
namespace {

constexpr std::size_t kMaxIdChars = KVR_NAME_CHARS;
constexpr std::u16string_view kLineEnd = u"\r\n";

void AppendLine(std::u16string& text, std::string_view key, const std::u16string& value) {
    text.append(key.begin(), key.end());
    text += u" = ";
    text += value;
    text += kLineEnd;
}

void AppendLine(std::u16string& text, std::string_view key, int value) {
    AppendLine(text, key, Widen(std::to_string(value)));
}

// A value ends at the first blank, '=' or ':', and a volume's name at the first ',' or ';', so a name with one
// of them would silently stand for another volume.
void RequireUsableId(const std::u16string& id) {
    const bool bad = id.empty() || id.size() > kMaxIdChars || std::any_of(id.begin(), id.end(), [](char16_t c) {
                         return c <= u' ' || std::u16string_view(u"=:,;").find(c) != std::u16string_view::npos;
                     });
    if (bad) throw std::invalid_argument("'" + Narrow(id) + "' cannot name a volume in the configuration");
}

void RequireUsableDate(const FixedVolumeSection& section) {
    const std::string& date = section.discardDate;
    const bool digits =
        date.size() == 12 && std::all_of(date.begin(), date.end(), [](char c) { return c >= '0' && c <= '9'; });
    if (!digits) throw std::invalid_argument("'" + date + "' is no discard date (YYYYMMDDhhmm)");
    if (section.mode != BootMode::Keep)
        throw std::invalid_argument("a discard date needs the boot mode that keeps changes");
}

void AppendSection(std::u16string& text, const FixedVolumeSection& section, std::size_t number) {
    RequireUsableId(section.id);
    text += u"[FV " + Widen(std::to_string(number)) + u"]";
    text += kLineEnd;
    AppendLine(text, "ID", section.id);
    AppendLine(text, "ProtectionMode", section.isProtected ? 1 : 0);
    AppendLine(text, "BootMode", static_cast<int>(section.mode));
    if (!section.discardDate.empty()) {
        RequireUsableDate(section);
        AppendLine(text, "NextDiscardTS", Widen(section.discardDate));
    }
    AppendLine(text, "BootAction", static_cast<int>(section.action));
}

void AppendSection(std::u16string& text, const RemovableVolumeSection& section, std::size_t number) {
    RequireUsableId(section.id);
    text += u"[RV " + Widen(std::to_string(number)) + u"]";
    text += kLineEnd;
    AppendLine(text, "ID", section.id);
    AppendLine(text, "AccessMode", static_cast<int>(section.access));
}

// The part of `line` before and after its first '=', without blanks around them.
std::pair<std::string, std::string> SplitLine(const std::string& line) {
    const auto trim = [](std::string part) {
        const std::size_t first = part.find_first_not_of(" \t\r");
        if (first == std::string::npos) return std::string();
        return part.substr(first, part.find_last_not_of(" \t\r") - first + 1);
    };
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) return {trim(line), ""};
    return {trim(line.substr(0, equals)), trim(line.substr(equals + 1))};
}

}  // namespace

std::u16string ComposeConfiguration(const Configuration& configuration) {
    std::u16string text = u"[Global]";
    text += kLineEnd;
    AppendLine(text, "Protection", configuration.protection ? 1 : 0);
    AppendLine(text, "RVAccessMode", static_cast<int>(configuration.removable));
    AppendLine(text, "FVBootMode", configuration.fixedMode == BootMode::Keep ? 1 : 0);
    std::size_t number = 0;
    for (const auto& section : configuration.fixed) AppendSection(text, section, ++number);
    number = 0;
    for (const auto& section : configuration.removables) AppendSection(text, section, ++number);
    return text;
}

std::u16string ComposeSection(const FixedVolumeSection& section, std::size_t number) {
    std::u16string text;
    AppendSection(text, section, number);
    return text;
}

std::u16string ComposeSection(const RemovableVolumeSection& section, std::size_t number) {
    std::u16string text;
    AppendSection(text, section, number);
    return text;
}

std::vector<std::uint8_t> ConfigurationImage(const std::u16string& text) {
    if (text.size() * 2 > KVR_CONFIG_BYTES)
        throw std::invalid_argument("the configuration text is longer than " +
                                    std::to_string(KVR_CONFIG_BYTES / 2) + " characters");
    std::vector<std::uint8_t> image(KVR_CONFIG_BYTES, 0);
    for (std::size_t i = 0; i < text.size(); ++i) {
        image[2 * i] = static_cast<std::uint8_t>(text[i]);
        image[2 * i + 1] = static_cast<std::uint8_t>(text[i] >> 8);
    }
    return image;
}

std::u16string ConfigurationText(const std::vector<std::uint8_t>& image) {
    std::u16string text;
    for (std::size_t i = 0; i + 1 < image.size(); i += 2)
        text += static_cast<char16_t>(image[i] | image[i + 1] << 8);
    text.erase(text.find_last_not_of(u'\0') + 1);
    return text;
}

std::string VolumeSetting(const std::u16string& text, const std::u16string& id, const std::string& key) {
    const std::string lines = Narrow(text);
    bool inSection = false;
    for (std::size_t start = 0; start < lines.size();) {
        const std::size_t end = std::min(lines.find('\n', start), lines.size());
        const auto [name, value] = SplitLine(lines.substr(start, end - start));
        start = end + 1;
        if (name.starts_with("[")) inSection = false;
        if (name == "ID") inSection = value == Narrow(id);
        if (inSection && name == key) return value;
    }
    return "";
}

std::string Narrow(const std::u16string& text) {
    std::string narrow;
    for (char16_t c : text) narrow += c < 0x80 ? static_cast<char>(c) : '?';
    return narrow;
}

std::u16string Widen(const std::string& text) {
    return std::u16string(text.begin(), text.end());
}

}  // namespace tool
