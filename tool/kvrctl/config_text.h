// The configuration text as it goes through the control device, and the texts that hosted programs write.
#pragma once
#include <cstdint>
#include <string>
#include <vector>
#include "tool/kvrctl/config_writer.h"

namespace tool {

// The text as the driver takes it: exactly KVR_CONFIG_BYTES, UTF-16LE, zeros behind the text. Throws
// std::invalid_argument when the text is too long.
std::vector<std::uint8_t> ConfigurationImage(const std::u16string& text);
// The reverse: without the zeros that fill the rest.
std::u16string ConfigurationText(const std::vector<std::uint8_t>& image);

// Only ASCII is expected in what the tool prints; other characters become '?'.
std::string Narrow(const std::u16string& text);
std::u16string Widen(const std::string& text);

}  // namespace tool
