// Times as programs write them, by the machine's clock.
#pragma once
#include <ctime>
#include "tool/kvrctl/date.h"

namespace ctl {

// "2027-01-31T18:00:00+01:00"
std::string IsoTime(std::time_t time, const Clock& clock);
// The same for a date of the configuration (YYYYMMDDhhmm, sound).
std::string IsoDate(const std::u16string& date, const Clock& clock);

}  // namespace ctl
