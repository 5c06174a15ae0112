#include "tool/kvrctl/date.h"
#include <chrono>
#include <cstdio>
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

std::string Now() {
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    char text[16] = "";
    if (const std::tm* local = std::localtime(&now)) std::strftime(text, sizeof text, "%Y%m%d%H%M", local);
    return text;
}

}  // namespace

std::u16string ParseDate(const std::string& text) {
    const std::string digits = DigitsOf(text);
    const std::u16string date = FromUtf8(digits, "the date");
    if (!IsDate(date)) throw Failure("'" + text + "' is no date; write it as \"YYYY-MM-DD hh:mm\"", kExitUsage);
    if (digits <= Now()) throw Failure("'" + text + "' is over", kExitUsage);
    return date;
}

std::string DateText(const std::u16string& date) {
    const std::string d = ToUtf8(date);
    return d.substr(0, 4) + "-" + d.substr(4, 2) + "-" + d.substr(6, 2) + " " + d.substr(8, 2) + ":" +
           d.substr(10, 2);
}

}  // namespace ctl
