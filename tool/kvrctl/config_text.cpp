#include "tool/kvrctl/config_text.h"
#include <cstring>
#include <stdexcept>
#include "formats/kvr_ioctl.h"

namespace tool {

std::vector<std::uint8_t> ConfigurationImage(const std::u16string& text) {
    if (text.size() * 2 > KVR_CONFIG_BYTES)
        throw std::invalid_argument("the configuration text is longer than " +
                                    std::to_string(KVR_CONFIG_BYTES / 2) + " characters");
    std::vector<std::uint8_t> image(KVR_CONFIG_BYTES, 0);
    std::memcpy(image.data(), text.data(), text.size() * 2);
    return image;
}

std::u16string ConfigurationText(const std::vector<std::uint8_t>& image) {
    std::u16string text(image.size() / 2, u'\0');
    if (!image.empty()) std::memcpy(text.data(), image.data(), text.size() * 2);
    text.erase(text.find_last_not_of(u'\0') + 1);
    return text;
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
