// Dates as the user writes them and as the configuration holds them.
#pragma once
#include <string>

namespace ctl {

// "2027-01-31 18:00" to "202701311800". Throws Failure (kExitUsage) for what is no date or is over.
std::u16string ParseDate(const std::string& text);
// The reverse, for a sound date.
std::string DateText(const std::u16string& date);

}  // namespace ctl
