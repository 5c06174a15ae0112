// Dates as the user writes them and as the configuration holds them: minutes of the machine's own clock.
#pragma once
#include <ctime>
#include <string>
#include "tool/kvrctl/world.h"

namespace ctl {

// The clock by which the machine's driver judges dates.
struct Clock {
    int minutesEast = 0;  // of UTC, now
    std::u16string now;   // YYYYMMDDhhmm there
};
// Throws Failure.
Clock ClockOf(World& world);

// "2027-01-31 18:00" to "202701311800". Throws Failure (kExitUsage) for what is no date or is over.
std::u16string ParseDate(const std::string& text, const Clock& clock);
// The reverse, for a sound date, with the machine's zone: "2027-01-31 18:00 UTC+1".
std::string DateText(const std::u16string& date, const Clock& clock);
// Both as programs write them: "2027-01-31T18:00:00+01:00"
std::string IsoTime(std::time_t time, const Clock& clock);
std::string IsoDate(const std::u16string& date, const Clock& clock);
// "UTC", "UTC+1", "UTC-3:30".
std::string ZoneText(const Clock& clock);
// Is it one on which a boot that took place now would act?
bool IsOver(const std::u16string& date, const Clock& clock);

}  // namespace ctl
