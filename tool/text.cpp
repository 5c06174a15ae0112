#include "tool/text.h"
#include <algorithm>
#include "client/failure.h"

namespace ctl {
namespace {

constexpr std::int64_t kMostBytes = INT64_MAX;
constexpr std::string_view kDigits = "0123456789";

[[noreturn]] void Refuse(std::string_view text) {
    throw Failure("'" + std::string(text) + "' is no size; write it like 2G, 512M, 1.5GiB or in bytes",
                  kExitUsage);
}

// 0 for what is no unit.
std::int64_t UnitOf(std::string_view unit) {
    std::string lower;
    for (char c : unit) lower += c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    if (lower.empty() || lower == "b" || lower == "byte" || lower == "bytes") return 1;
    const std::size_t power = std::string_view("kmgt").find(lower[0]);
    const std::string rest = lower.substr(1);
    if (power == std::string_view::npos || !(rest.empty() || rest == "b" || rest == "ib")) return 0;
    return std::int64_t{1} << (10 * (power + 1));
}

// `unit` × 0.DIGITS, rounded down.
std::int64_t Fraction(std::string_view digits, std::int64_t unit) {
    long double value = 0, place = 1;
    for (char c : digits.substr(0, 18)) value += static_cast<long double>(c - '0') * (place /= 10);
    return static_cast<std::int64_t>(value * static_cast<long double>(unit) + 1e-6L);
}

}  // namespace

std::int64_t ParseSize(std::string_view text) {
    const std::size_t whole = std::min(text.find_first_not_of(kDigits), text.size());
    std::string_view rest = text.substr(whole), fraction;
    if (whole == 0) Refuse(text);
    if (!rest.empty() && rest[0] == '.') {
        const std::size_t end = std::min(rest.find_first_not_of(kDigits, 1), rest.size());
        fraction = rest.substr(1, end - 1);
        rest.remove_prefix(end);
        if (fraction.empty()) Refuse(text);
    }
    while (!rest.empty() && rest[0] == ' ') rest.remove_prefix(1);
    const std::int64_t unit = UnitOf(rest);
    if (unit == 0 || (unit == 1 && !fraction.empty())) Refuse(text);
    std::int64_t number = 0;
    for (char c : text.substr(0, whole)) {
        if (number > (kMostBytes / unit - (c - '0')) / 10) Refuse(text);
        number = number * 10 + (c - '0');
    }
    const std::int64_t bytes = number * unit + Fraction(fraction, unit);
    if (bytes <= 0) Refuse(text);
    return bytes;
}

std::string Bar(std::uint64_t part, std::uint64_t whole, unsigned width) {
    part = std::min(part, whole);
    std::uint64_t full =
        whole == 0 ? 0 : static_cast<std::uint64_t>(static_cast<long double>(part) / whole * width);
    if (part != 0 && full == 0) full = 1;
    if (part != whole && full >= width) full = width - 1;
    return std::string(full, '#') + std::string(width - full, '.');
}

std::string PercentText(std::uint64_t part, std::uint64_t whole) {
    if (whole == 0 || part == 0) return "0 %";
    const auto percent = static_cast<unsigned>(static_cast<long double>(std::min(part, whole)) * 100 / whole);
    return percent == 0 ? "<1 %" : std::to_string(percent) + " %";
}

std::size_t TextWidth(const std::string& text) {
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

std::string TableText(const std::vector<Row>& rows) {
    std::vector<std::size_t> widths;
    for (const Row& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], TextWidth(row[i]));
    }
    std::string text;
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            line.append(widths[i] - TextWidth(row[i]) + 2, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text;
}

}  // namespace ctl
