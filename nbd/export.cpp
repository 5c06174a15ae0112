#include "nbd/export.h"
#include <charconv>

namespace nbd {

std::optional<Export> Export::Parse(std::string_view name) {
    if (name.empty()) name = kDefaultExport;
    for (const bool wholeDisk : {true, false}) {
        const std::string_view prefix = wholeDisk ? "disk" : "HarddiskVolume";
        if (!name.starts_with(prefix)) continue;
        Export found{wholeDisk, 0};
        const char* end = name.data() + name.size();
        const auto parsed = std::from_chars(name.data() + prefix.size(), end, found.number);
        if (parsed.ec == std::errc() && parsed.ptr == end && found.Name() == name) return found;
    }
    return std::nullopt;
}

}  // namespace nbd
