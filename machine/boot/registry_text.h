// Names and lines of the registry's text file.
#pragma once
#include <string>
#include <string_view>
#include <vector>
#include "platform/kernel.h"

namespace machine::registry_text {

// A name between quotes; the reverse advances `at` past the closing quote.
std::string Quote(std::u16string_view name);
bool Unquote(std::string_view line, std::size_t& at, std::u16string& name);

// "dword:0000002a", "hex:01,02" (binary) or "hex(type):01,02".
std::string WriteData(ULONG type, const std::vector<UCHAR>& data);
bool ReadData(std::string_view text, ULONG& type, std::vector<UCHAR>& data);

}  // namespace machine::registry_text
