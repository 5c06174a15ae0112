// What people write and read: sizes, counts, bars, tables.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>
#include "client/size_text.h"

namespace ctl {

// "2G", "512M", "1.5GiB", "1048576", "64 kB"; every unit is a power of 1024. Throws Failure (kExitUsage) for
// what is none, is 0 or does not fit.
std::int64_t ParseSize(std::string_view text);
// Full and empty characters, `width` in all; what is neither all nor nothing never looks like it.
std::string Bar(std::uint64_t part, std::uint64_t whole, unsigned width);
// "37 %", rounded down, so that 100 % is all of it; "<1 %" for what is not nothing.
std::string PercentText(std::uint64_t part, std::uint64_t whole);

// Characters of UTF-8.
std::size_t TextWidth(const std::string& text);

using Row = std::vector<std::string>;
// Columns as wide as their widest cell. Every line ended; no blanks at the end of one.
std::string TableText(const std::vector<Row>& rows);

}  // namespace ctl
