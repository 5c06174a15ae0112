#include "client/size_text.h"
#include <cstdio>
#include <iterator>

namespace ctl {

std::string SizeText(std::uint64_t bytes) {
    static constexpr const char* kUnits[] = {"bytes", "KiB", "MiB", "GiB", "TiB", "PiB"};
    double value = static_cast<double>(bytes);
    std::size_t unit = 0;
    while (value >= 1023.95 && unit + 1 < std::size(kUnits)) value /= 1024, ++unit;
    char text[64];
    const bool isWhole = unit == 0 || value == static_cast<double>(static_cast<std::uint64_t>(value));
    std::snprintf(text, sizeof text, isWhole ? "%.0f %s" : "%.1f %s", value, kUnits[unit]);
    return text;
}

std::string CountText(std::uint64_t number, const std::string& thing) {
    return std::to_string(number) + " " + thing + (number == 1 ? "" : "s");
}

}  // namespace ctl
