#include "tool/kvrctl/status_view.h"
#include <algorithm>
#include <nlohmann/json.hpp>
#include "tool/text.h"
#include "tool/kvrctl/unicode.h"
#include "tool/kvrctl/volumes.h"

namespace ctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr unsigned kBarWidth = 20;

std::string FixedStateText(std::uint32_t state) {
    switch (state) {
        case 0:
            return "not protected";
        case 1:
            return "protected by default";
        case 2:
            return "protected";
        case 3:
            return "protected and hidden";
        default:
            return "state " + std::to_string(state);
    }
}

std::string AccessText(std::uint32_t mode) {
    return mode == 0   ? "not protected"
           : mode == 1 ? "protected"
           : mode == 2 ? "protected and hidden"
                       : "state " + std::to_string(mode);
}

// The driver's signed numbers, never taken for huge ones.
std::uint64_t Size(std::int64_t bytes) {
    return static_cast<std::uint64_t>(std::max<std::int64_t>(bytes, 0));
}
std::uint64_t Used(const FixedVolume& volume) {
    return std::min(Size(volume.swapUsed), Size(volume.swapTotal));
}

Row FixedRow(const FixedVolume& volume) {
    const std::uint64_t total = Size(volume.swapTotal), used = Used(volume);
    Row row = {ShortName(volume.name), "fixed", FixedStateText(volume.state)};
    if (total == 0)
        row.insert(row.end(), 3, "-"), row.emplace_back();
    else
        row.insert(row.end(), {SizeText(total), SizeText(used), SizeText(total - used),
                               "[" + Bar(used, total, kBarWidth) + "] " + PercentText(used, total)});
    row.push_back(StorageText(volume.swapStatus));
    return row;
}

Json FixedJson(const FixedVolume& volume) {
    const std::uint64_t total = Size(volume.swapTotal), used = Used(volume);
    return {{"name", ToUtf8(volume.name)},
            {"kind", "fixed"},
            {"protected", volume.state != 0},
            {"state", FixedStateText(volume.state)},
            {"stateCode", volume.state},
            {"swap",
             {{"totalBytes", total},
              {"usedBytes", used},
              {"freeBytes", total - used},
              {"status", StorageText(volume.swapStatus)},
              {"statusCode", volume.swapStatus}}}};
}

Json RemovableJson(const RemovableVolume& volume) {
    return {{"name", ToUtf8(volume.name)},
            {"kind", "removable"},
            {"protected", volume.accessMode != 0},
            {"state", AccessText(volume.accessMode)},
            {"stateCode", volume.accessMode}};
}

}  // namespace

MachineStatus QueryStatus(const Context& context) {
    Client client = context.Open(Access::Read);
    MachineStatus status{client.Enabled(), client.FixedVolumes(), client.RemovableVolumes()};
    std::erase_if(status.fixed, [](const FixedVolume& volume) { return IsDisk(volume.name); });
    return status;
}

std::string StatusTable(const MachineStatus& status) {
    std::string text =
        status.enabled ? "Protection is on.\n" : "Protection is off: the driver protects nothing.\n";
    if (status.fixed.empty() && status.removable.empty()) return text + "There are no volumes.\n";
    std::vector<Row> rows = {{"VOLUME", "KIND", "STATE", "SWAP", "USED", "FREE", "", "STORAGE"}};
    for (const FixedVolume& volume : status.fixed) rows.push_back(FixedRow(volume));
    for (const RemovableVolume& volume : status.removable)
        rows.push_back({ShortName(volume.name), "removable", AccessText(volume.accessMode)});
    return text + "\n" + TableText(rows);
}

Json StatusJson(const MachineStatus& status) {
    Json volumes = Json::array();
    for (const FixedVolume& volume : status.fixed) volumes.push_back(FixedJson(volume));
    for (const RemovableVolume& volume : status.removable) volumes.push_back(RemovableJson(volume));
    return {{"protection", status.enabled}, {"volumes", volumes}};
}

std::string StorageText(std::uint32_t swapStatus) {
    switch (swapStatus) {
        case kSwapNone:
            return "none";
        case kSwapProvisioning:
            return "being made or removed";
        case kSwapPresent:
            return "ready";
        case kSwapMapBad:
            return "saved map damaged: make it anew";
        case kSwapNoLocation:
            return "missing: make it";
        case kSwapNotHeld:
            return "files used by another program";
        default:
            return "state " + std::to_string(swapStatus);
    }
}

}  // namespace ctl
