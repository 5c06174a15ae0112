// Text that fits a terminal's 80 columns without being wrapped by it.
#pragma once
#include <cstddef>
#include <string>
#include <vector>
#include "tool/text.h"

namespace ctl {

inline constexpr std::size_t kColumns = 80;

// Cut into lines at blanks, those behind the first one indented; a word longer than a line is cut anywhere.
std::string Folded(const std::string& text, std::size_t indent);
// What belongs to the row of a table above it; nothing for an empty text.
std::string Detail(const std::string& text);
// A table, each row followed by what belongs to it: as many as there are rows, lines or nothing.
std::string TableWith(const std::vector<Row>& rows, const std::vector<std::string>& details);

}  // namespace ctl
