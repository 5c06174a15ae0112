// status, watch.
#include <algorithm>
#include <nlohmann/json.hpp>
#include "tool/kvrctl/config_text.h"
#include "tool/kvrctl/commands.h"
#include "tool/kvrctl/config_scan.h"
#include "client/failure.h"
#include "tool/kvrctl/hardening.h"
#include "tool/text.h"
#include "tool/kvrctl/unicode.h"
#include "tool/kvrctl/volumes.h"

namespace ctl {
namespace {

using Json = nlohmann::ordered_json;

struct MachineStatus {
    bool enabled = false;
    std::vector<FixedVolume> fixed;  // without the disks
    std::vector<RemovableVolume> removable;
    Hardening hardening;
    std::vector<std::u16string> missing;   // to be protected, and not there
    std::vector<std::string> unprotected;  // to be protected, and not or not quite: a sentence on each

    bool IsAsConfigured() const { return missing.empty() && unprotected.empty(); }
};

constexpr unsigned kBarWidth = 20;

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

// The fixed volumes that the text protects: those that the driver does not have, and those that it has and
// whose storage keeps it from protecting them. What was configured since the boot is neither.
void FindTrouble(const ConfigScan& scan, MachineStatus& status) {
    for (const Section& section : scan.sections) {
        const VolumeSettings& settings = section.volume;
        if (section.kind != SectionKind::FixedVolume || !settings.isListed || !settings.isProtected ||
            !settings.switchWasOn)
            continue;
        const auto found = std::find_if(
            status.fixed.begin(), status.fixed.end(),
            [&](const FixedVolume& volume) { return EqualIgnoringCase(volume.name, settings.id); });
        if (found == status.fixed.end()) {
            status.missing.push_back(settings.id);
            continue;
        }
        const std::string trouble = StorageTrouble(*found, status.hardening.now);
        if (status.enabled && !trouble.empty())
            status.unprotected.push_back(ShortName(found->name) + " " + trouble);
    }
}

MachineStatus QueryStatus(const Context& context) {
    Client client = context.Open(Access::Read);
    MachineStatus status{client.Enabled(),
                         client.FixedVolumes(),
                         client.RemovableVolumes(),
                         QueryHardening(context.world),
                         {},
                         {}};
    const ConfigScan scan = ScanConfig(tool::ConfigurationText(client.GetConfig()));
    if (scan.protection) FindTrouble(scan, status);
    std::erase_if(status.fixed, [](const FixedVolume& volume) { return IsDisk(volume.name); });
    return status;
}

std::string StatusTable(const MachineStatus& status) {
    std::string text;
    for (const std::u16string& name : status.missing)
        text += "WARNING: " + ShortName(name) + " is to be protected and is not there.\n";
    for (const std::string& sentence : status.unprotected) text += "WARNING: " + sentence + ".\n";
    text += status.enabled ? "Protection is on.\n" : "Protection is off: the driver protects nothing.\n";
    text += HardeningText(status.hardening) + "\n";
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
    return {{"protection", status.enabled},
            {"hardening", HardeningJson(status.hardening)},
            {"volumes", volumes},
            {"missing", missing},
            {"unprotected", status.unprotected}};
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
    return status.IsAsConfigured() ? kExitOk : kExitFailed;
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

}  // namespace ctl
