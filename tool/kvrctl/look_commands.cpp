// status, watch, volumes, debug.
#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include "tool/kvrctl/config_text.h"
#include "tool/kvrctl/commands.h"
#include "tool/kvrctl/config_scan.h"
#include "tool/kvrctl/date.h"
#include "client/failure.h"
#include "tool/text.h"
#include "tool/kvrctl/unicode.h"
#include "tool/kvrctl/volumes.h"

namespace ctl {
namespace {

using Json = nlohmann::ordered_json;

// ---- what the driver reports, in words
// ------------------------------------------------------------------------

struct MachineStatus {
    bool enabled = false;
    std::vector<FixedVolume> fixed;  // without the disks
    std::vector<RemovableVolume> removable;
    std::vector<std::u16string> missing;  // to be protected, and not there
};

constexpr unsigned kBarWidth = 20;

// The word at that place, for a code that has one.
template <std::size_t N>
std::string WordFor(const char* const (&words)[N], std::uint32_t code) {
    return code < N ? words[code] : "state " + std::to_string(code);
}

std::string FixedStateText(std::uint32_t state) {
    static constexpr const char* kWords[] = {"not protected", "protected by default", "protected",
                                             "protected and hidden"};
    return WordFor(kWords, state);
}

std::string AccessText(std::uint32_t mode) {
    static constexpr const char* kWords[] = {"not protected", "protected", "protected and hidden"};
    return WordFor(kWords, mode);
}

// The driver's signed numbers, never taken for huge ones.
std::uint64_t Size(std::int64_t bytes) {
    return static_cast<std::uint64_t>(std::max<std::int64_t>(bytes, 0));
}
std::uint64_t Used(const FixedVolume& volume) {
    return std::min(Size(volume.swapUsed), Size(volume.swapTotal));
}

std::string StorageText(std::uint32_t swapStatus) {
    static constexpr const char* kWords[] = {
        "none",
        "being made or removed",
        "ready",
        "saved map damaged: make it anew",
        "missing: make it",
        "files used by another program",
        "volume too large to keep its changes: only discard mode protects it",
    };
    static_assert(std::size(kWords) == kSwapVolumeTooLarge + 1);
    return WordFor(kWords, swapStatus);
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

// The fixed volumes that the text protects and the driver does not have.
std::vector<std::u16string> MissingVolumes(const ConfigScan& scan, const std::vector<FixedVolume>& present) {
    std::vector<std::u16string> missing;
    for (const Section& section : scan.sections) {
        const VolumeSettings& settings = section.volume;
        const bool counts = section.kind == SectionKind::FixedVolume && settings.isListed &&
                            settings.isProtected && settings.switchWasOn;
        const auto same = [&](const FixedVolume& volume) {
            return EqualIgnoringCase(volume.name, settings.id);
        };
        if (counts && std::none_of(present.begin(), present.end(), same)) missing.push_back(settings.id);
    }
    return missing;
}

MachineStatus QueryStatus(const Context& context) {
    Client client = context.Open(Access::Read);
    MachineStatus status{client.Enabled(), client.FixedVolumes(), client.RemovableVolumes(), {}};
    const ConfigScan scan = ScanConfig(tool::ConfigurationText(client.GetConfig()));
    if (scan.protection) status.missing = MissingVolumes(scan, status.fixed);
    std::erase_if(status.fixed, [](const FixedVolume& volume) { return IsDisk(volume.name); });
    return status;
}

std::string StatusTable(const MachineStatus& status) {
    std::string text;
    for (const std::u16string& name : status.missing)
        text += "WARNING: " + ShortName(name) + " is to be protected and is not there.\n";
    text += status.enabled ? "Protection is on.\n" : "Protection is off: the driver protects nothing.\n";
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
    Json missing = Json::array();
    for (const std::u16string& name : status.missing) missing.push_back(ToUtf8(name));
    return {{"protection", status.enabled}, {"volumes", volumes}, {"missing", missing}};
}

// ---- the volumes, and what holds at the next boot
// ------------------------------------------------------------

std::string FileSystemText(FileSystemKind kind) {
    static constexpr const char* kWords[] = {"none", "ntfs", "ext"};
    const auto code = static_cast<std::size_t>(kind);
    return code < std::size(kWords) ? kWords[code] : "other";
}

std::string FixedPlan(const VolumeSettings& settings) {
    std::string text = settings.action == 2   ? "protected; changes are merged once"
                       : settings.action == 1 ? "protected; changes are dropped once"
                       : settings.atBoot == 0 ? "protected; changes are dropped at every boot"
                                              : "protected; changes are kept";
    if (settings.action == 0 && settings.atBoot == 1 && !settings.date.empty())
        text += " until " + DateText(settings.date);
    return text;
}

// What the configuration holds for the volume at the next boot.
std::string PlanText(const ConfigScan& scan, const KnownVolume& volume) {
    if (!scan.protection) return "not protected (protection is off)";
    const Section* section = scan.Find(volume.name);
    if (!section && volume.removable) return AccessText(scan.removableAccess);
    if (!section || !section->volume.isProtected || !section->volume.switchWasOn) return "not protected";
    if (section->kind == SectionKind::RemovableVolume) return AccessText(section->volume.accessMode);
    return FixedPlan(section->volume);
}

struct VolumeRow {
    KnownVolume volume;
    std::optional<VolumeFacts> facts;
    std::string plan;
};

std::vector<VolumeRow> QueryVolumes(const Context& context) {
    Client client = context.Open(Access::Read);
    const ConfigScan scan = ScanConfig(tool::ConfigurationText(client.GetConfig()));
    std::vector<VolumeRow> rows;
    for (const KnownVolume& volume : KnownVolumes(client))
        rows.push_back({volume, context.world.Facts(volume.name), PlanText(scan, volume)});
    return rows;
}

std::string VolumeTable(const std::vector<VolumeRow>& volumes) {
    std::vector<Row> rows = {
        {"VOLUME", "KIND", "SIZE", "FREE", "FILES", "SECTOR", "IN USE BY", "FROM THE NEXT BOOT"}};
    for (const VolumeRow& row : volumes) {
        Row cells = {ShortName(row.volume.name), row.volume.removable ? "removable" : "fixed"};
        if (row.facts)
            cells.insert(
                cells.end(),
                {SizeText(row.facts->bytes), row.facts->freeBytes ? SizeText(*row.facts->freeBytes) : "?",
                 FileSystemText(row.facts->fileSystem), std::to_string(row.facts->sectorBytes),
                 row.facts->clients.empty() ? "-" : row.facts->clients});
        else
            cells.insert(cells.end(), {"?", "?", "?", "?", "-"});
        cells.push_back(row.plan);
        rows.push_back(std::move(cells));
    }
    return volumes.empty() ? "There are no volumes.\n" : TableText(rows);
}

Json VolumeJson(const VolumeRow& row) {
    Json json = {{"name", ToUtf8(row.volume.name)}, {"kind", row.volume.removable ? "removable" : "fixed"}};
    if (row.facts) {
        json["bytes"] = row.facts->bytes;
        json["freeBytes"] = row.facts->freeBytes ? Json(*row.facts->freeBytes) : Json(nullptr);
        json["sectorBytes"] = row.facts->sectorBytes;
        json["fileSystem"] = FileSystemText(row.facts->fileSystem);
        json["inUseBy"] = row.facts->clients;
    }
    json["nextBoot"] = row.plan;
    return json;
}

void DrawStatus(const Context& context, const MachineStatus& status) {
    std::ostream& out = context.terminal.out;
    if (context.json)
        out << StatusJson(status).dump() << "\n";
    else if (context.terminal.isTerminal)
        out << "\033[H\033[J" << StatusTable(status) << "\nCtrl-C ends.\n";
    else
        out << StatusTable(status) << "\n";
    out.flush();
}

}  // namespace

int ShowStatus(const Context& context) {
    const MachineStatus status = QueryStatus(context);
    context.terminal.out << (context.json ? StatusJson(status).dump(2) + "\n" : StatusTable(status));
    return status.missing.empty() ? kExitOk : kExitFailed;
}

int Watch(const Context& context, const WatchOptions& options) {
    const std::chrono::milliseconds pause(static_cast<std::int64_t>(options.seconds * 1000));
    context.terminal.CatchInterrupt();
    try {
        for (unsigned shown = 1;; ++shown) {
            DrawStatus(context, QueryStatus(context));
            if (shown == options.count || !context.terminal.Pause(pause)) return kExitOk;
        }
    } catch (const Failure& failure) {
        if (failure.ExitCode() != kExitStopped) throw;
        return kExitOk;  // Ctrl-C is how it ends
    }
}

int ShowVolumes(const Context& context, bool namesOnly) {
    if (namesOnly) {
        Client client = context.Open(Access::Read);
        for (const KnownVolume& volume : KnownVolumes(client))
            context.terminal.out << ShortName(volume.name) << "\n";
        return kExitOk;
    }
    const std::vector<VolumeRow> volumes = QueryVolumes(context);
    if (!context.json) {
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
