#include "tool/kvrctl/date.h"
#include <cstdio>
#include <cstdlib>
#include "tool/kvrctl/config_scan.h"
#include "client/failure.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

constexpr char kForm[] = "dddd-dd-dd dd:dd";

// The digits of a text of that form; empty for another.
std::string DigitsOf(std::string text) {
    if (text.size() > 10 && text[10] == 'T') text[10] = ' ';
    if (text.size() != sizeof kForm - 1) return {};
    std::string digits;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (kForm[i] == 'd' ? !digit : text[i] != kForm[i]) return {};
        if (digit) digits += text[i];
    }
    return digits;
}

// As the machine's clock shows that moment.
std::string TimeThere(std::time_t time, const Clock& clock, const char* format) {
    const std::time_t there = time + clock.minutesEast * 60;
    char text[32] = "";
    if (const std::tm* fields = std::gmtime(&there)) std::strftime(text, sizeof text, format, fields);
    return text;
}

// "2027-01-31 18:00", the two parts with `between` between them.
std::string Spelt(const std::u16string& date, char between) {
    const std::string d = ToUtf8(date);
    return d.substr(0, 4) + "-" + d.substr(4, 2) + "-" + d.substr(6, 2) + between + d.substr(8, 2) + ":" +
           d.substr(10, 2);
}

// "+01:00"
std::string Offset(const Clock& clock) {
    const int minutes = std::abs(clock.minutesEast);
    char text[32];
    std::snprintf(text, sizeof text, "%c%02d:%02d", clock.minutesEast < 0 ? '-' : '+', minutes / 60,
                  minutes % 60);
    return text;
}

}  // namespace

Clock ClockOf(World& world) {
    Clock clock{world.MinutesEast(), {}};
    clock.now = FromUtf8(TimeThere(std::time(nullptr), clock, "%Y%m%d%H%M"), "the time");
    return clock;
}

std::u16string ParseDate(const std::string& text, const Clock& clock) {
    const std::u16string date = FromUtf8(DigitsOf(text), "the date");
    if (!IsDate(date)) throw Failure("'" + text + "' is no date; write it as \"YYYY-MM-DD hh:mm\"", kExitUsage);
    if (IsOver(date, clock))
        throw Failure("'" + text + "' is over; the machine's clock says " + DateText(clock.now, clock),
                      kExitUsage);
    return date;
}

std::string ZoneText(const Clock& clock) {
    if (clock.minutesEast == 0) return "UTC";
    const int minutes = std::abs(clock.minutesEast);
    char text[32];
    std::snprintf(text, sizeof text, minutes % 60 ? "UTC%c%d:%02d" : "UTC%c%d",
                  clock.minutesEast < 0 ? '-' : '+', minutes / 60, minutes % 60);
    return text;
}

std::string DateText(const std::u16string& date, const Clock& clock) {
    return Spelt(date, ' ') + " " + ZoneText(clock);
}

std::string IsoTime(std::time_t time, const Clock& clock) {
    return TimeThere(time, clock, "%Y-%m-%dT%H:%M:%S") + Offset(clock);
}

std::string IsoDate(const std::u16string& date, const Clock& clock) {
    return Spelt(date, 'T') + ":00" + Offset(clock);
}

// Digits of equal length compare like the dates that they spell.
bool IsOver(const std::u16string& date, const Clock& clock) {
    return date <= clock.now;
}

}  // namespace ctl
