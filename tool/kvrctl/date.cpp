#include "tool/kvrctl/date.h"
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
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

}  // namespace

Clock ClockOf(World& world) {
    Clock clock{world.MinutesEast(), {}};
    const auto now = std::chrono::system_clock::now() + std::chrono::minutes(clock.minutesEast);
    const std::time_t there = std::chrono::system_clock::to_time_t(now);
    char text[16] = "";
    if (const std::tm* fields = std::gmtime(&there)) std::strftime(text, sizeof text, "%Y%m%d%H%M", fields);
    clock.now = FromUtf8(text, "the time");
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
    const std::string d = ToUtf8(date);
    return d.substr(0, 4) + "-" + d.substr(4, 2) + "-" + d.substr(6, 2) + " " + d.substr(8, 2) + ":" +
           d.substr(10, 2) + " " + ZoneText(clock);
}

// Digits of equal length compare like the dates that they spell.
bool IsOver(const std::u16string& date, const Clock& clock) {
    return date <= clock.now;
}

}  // namespace ctl
