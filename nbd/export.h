// What a client connects to, by the name that it gives: a disk ("disk0"; no name is disk0 as well) or a volume
// ("HarddiskVolume1").
#pragma once
#include <optional>
#include <string>
#include <string_view>

namespace nbd {

inline constexpr char kDefaultExport[] = "disk0";

struct Export {
    bool wholeDisk = true;
    unsigned number = 0;  // of the disk, from 0, or of the volume, from 1

    // Nothing when the name has neither form.
    static std::optional<Export> Parse(std::string_view name);
    std::string Name() const { return (wholeDisk ? "disk" : "HarddiskVolume") + std::to_string(number); }
};

}  // namespace nbd
