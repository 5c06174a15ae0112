#include "tool/kvrctl/iso_time.h"
#include <cstdio>
#include <cstdlib>
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

// "+01:00"
std::string Offset(const Clock& clock) {
    const int minutes = std::abs(clock.minutesEast);
    char text[32];
    std::snprintf(text, sizeof text, "%c%02d:%02d", clock.minutesEast < 0 ? '-' : '+', minutes / 60,
                  minutes % 60);
    return text;
}

}  // namespace

std::string IsoTime(std::time_t time, const Clock& clock) {
    const std::time_t there = time + clock.minutesEast * 60;
    char text[32] = "";
    if (const std::tm* fields = std::gmtime(&there))
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", fields);
    return text + Offset(clock);
}

std::string IsoDate(const std::u16string& date, const Clock& clock) {
    const std::string d = ToUtf8(date);
    return d.substr(0, 4) + "-" + d.substr(4, 2) + "-" + d.substr(6, 2) + "T" + d.substr(8, 2) + ":" +
           d.substr(10, 2) + ":00" + Offset(clock);
}

}  // namespace ctl
