// volumes, debug.
#include <algorithm>
#include <nlohmann/json.hpp>
#include "tool/kvrctl/config_text.h"
#include "tool/kvrctl/commands.h"
#include "tool/kvrctl/config_scan.h"
#include "tool/kvrctl/folded.h"
#include "tool/kvrctl/boot_plan.h"
#include "client/failure.h"
#include "tool/text.h"
#include "tool/kvrctl/unicode.h"
#include "tool/kvrctl/volumes.h"

namespace ctl {
namespace {

using Json = nlohmann::ordered_json;

// ---- the volumes, and what holds at the next boot ----------------------------------------------------------

std::string FileSystemText(FileSystemKind kind) {
    static constexpr const char* kWords[] = {"none", "ntfs", "ext"};
    const auto code = static_cast<std::size_t>(kind);
    return code < std::size(kWords) ? kWords[code] : "other";
}

// While a client has the volume its file system is the client's, and nobody else knows.
std::string FreeText(const VolumeFacts& facts) {
    if (facts.freeBytes) return SizeText(*facts.freeBytes);
    return facts.clients.empty() ? "?" : "in use";
}

struct VolumeRow {
    KnownVolume volume;
    std::optional<VolumeFacts> facts;
    std::string plan;
};

std::vector<VolumeRow> QueryVolumes(const Context& context) {
    Client client = context.Open(Access::Read);
    const ConfigScan scan = ScanConfig(tool::ConfigurationText(client.GetConfig()));
    const Clock clock = ClockOf(context.world);
    std::vector<VolumeRow> rows;
    for (const KnownVolume& volume : KnownVolumes(client))
        rows.push_back({volume, context.world.Facts(volume.name),
                        PlanText(PlanOf(scan, volume, clock), volume.removable, clock)});
    return rows;
}

std::string FilesText(const VolumeRow& row) {
    return row.volume.told.fileSystem.empty() ? FileSystemText(row.facts->fileSystem)
                                              : row.volume.told.fileSystem;
}

constexpr std::size_t kLongestLabel = 12;

std::string CutLabel(const std::string& label) {
    if (label.empty()) return "-";
    return TextWidth(label) <= kLongestLabel ? label : "...";
}

// What the columns have no room for.
std::string VolumeDetails(const VolumeRow& row) {
    const VolumeDescription& told = row.volume.told;
    std::string text;
    if (TextWidth(told.label) > kLongestLabel) text += Detail("label: " + told.label);
    text += Detail(told.what) + Detail("next boot: " + row.plan);
    if (row.facts && !row.facts->clients.empty()) text += Detail("in use by " + row.facts->clients);
    return text;
}

std::string VolumeTable(const std::vector<VolumeRow>& volumes) {
    std::vector<Row> rows = {{"VOLUME", "LABEL", "KIND", "SIZE", "FREE", "FILES", "SECTOR"}};
    std::vector<std::string> details = {""};
    for (const VolumeRow& row : volumes) {
        const VolumeDescription& told = row.volume.told;
        Row cells = {ShortName(row.volume.name), CutLabel(told.label),
                     row.volume.removable ? "removable" : "fixed"};
        if (row.facts)
            cells.insert(cells.end(), {SizeText(row.facts->bytes), FreeText(*row.facts), FilesText(row),
                                       std::to_string(row.facts->sectorBytes)});
        else
            cells.insert(cells.end(), {"?", "?", "?", "?"});
        rows.push_back(std::move(cells));
        details.push_back(VolumeDetails(row));
    }
    return volumes.empty() ? "There are no volumes.\n" : TableWith(rows, details);
}

Json VolumeJson(const VolumeRow& row) {
    Json json = {{"name", ToUtf8(row.volume.name)}, {"kind", row.volume.removable ? "removable" : "fixed"}};
    json["label"] = row.volume.told.label;
    json["partition"] = row.volume.told.partition;
    json["what"] = row.volume.told.what;
    if (row.facts) {
        json["bytes"] = row.facts->bytes;
        json["freeBytes"] = row.facts->freeBytes ? Json(*row.facts->freeBytes) : Json(nullptr);
        json["sectorBytes"] = row.facts->sectorBytes;
        json["fileSystem"] = FilesText(row);
        json["inUseBy"] = row.facts->clients;
    }
    json["nextBoot"] = row.plan;
    return json;
}

}  // namespace

int ShowVolumes(const Context& context, bool namesOnly) {
    if (namesOnly) {
        Client client = context.Open(Access::Read);
        for (const KnownVolume& volume : KnownVolumes(client))
            context.terminal.out << ShortName(volume.name) << "\n";
        return kExitOk;
    }
    const std::vector<VolumeRow> volumes = QueryVolumes(context);
    if (!context.json) {
        for (const std::string& warning : context.world.Notes().warnings)
            context.terminal.out << Folded("WARNING: " + warning + ".", 2);
        context.terminal.out << VolumeTable(volumes);
        return kExitOk;
    }
    Json json = Json::array();
    for (const VolumeRow& row : volumes) json.push_back(VolumeJson(row));
    context.terminal.out << json.dump(2) << "\n";
    return kExitOk;
}

int Debug(const Context& context) {
    context.Open(Access::Read).Debug();
    context.terminal.out << "The driver wrote its debug lines to the kernel's debug output.\n";
    return kExitOk;
}

}  // namespace ctl
