// What the driver reports, in words.
#pragma once
#include <string>
#include <nlohmann/json_fwd.hpp>
#include "tool/kvrctl/commands.h"

namespace ctl {

struct MachineStatus {
    bool enabled = false;
    std::vector<FixedVolume> fixed;  // without the disks
    std::vector<RemovableVolume> removable;
};
MachineStatus QueryStatus(const Context& context);

std::string StatusTable(const MachineStatus& status);
nlohmann::ordered_json StatusJson(const MachineStatus& status);

// "being made or removed", "ready", ...
std::string StorageText(std::uint32_t swapStatus);

}  // namespace ctl
