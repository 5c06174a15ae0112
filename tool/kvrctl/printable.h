// Names and texts that others made up, for a terminal.
#pragma once
#include <string>

namespace ctl {

// Control characters and bytes that are no UTF-8 as \x1B; `lines`: line ends and tabs stay.
std::string Printable(const std::string& text, bool lines = false);

}  // namespace ctl
