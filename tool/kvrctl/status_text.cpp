// The status for people: a table of now and the next boot, what else is to be said of a volume below its row.
#include <algorithm>
#include "client/control_client.h"
#include "tool/kvrctl/status_model.h"
#include "tool/kvrctl/unicode.h"
#include "tool/kvrctl/folded.h"
#include "tool/text.h"

namespace ctl {
namespace {

constexpr std::size_t kLongestName = 18;  // HarddiskVolume1000
constexpr unsigned kBarWidth = 20;
constexpr char kYellow[] = "\033[33m", kRed[] = "\033[1;31m", kPlain[] = "\033[0m";

std::string NowText(const VolumeStatus& volume) {
    if (!volume.isThere) return "missing";
    if (!volume.isProtected) return "not protected";
    return volume.isHidden ? "hidden" : volume.removable ? "read-only" : "protected";
}

std::string CutName(const std::string& name) {
    return name.size() <= kLongestName ? name
                                       : name.substr(0, kLongestName - 8) + "~" + name.substr(name.size() - 7);
}

std::string UsableText(const VolumeStatus& volume) {
    if (volume.IsStorageBad()) return "none";
    return volume.storage == StorageState::Full ? "FULL" : SizeText(volume.room.usable);
}

Row RowOf(const VolumeStatus& volume) {
    Row row = {CutName(ShortName(volume.name)), NowText(volume), PlanWords(volume.next, volume.removable)};
    if (volume.removable || (volume.room.total == 0 && volume.storage != StorageState::Full))
        row.insert(row.end(), {"-", "-", "-"});
    else
        row.insert(row.end(),
                   {SizeText(volume.room.total),
                    PercentText(volume.room.used, volume.room.used + volume.room.usable), UsableText(volume)});
    return row;
}

// "3 h 20 min"
std::string DurationText(std::uint64_t seconds) {
    if (seconds < 60) return std::to_string(seconds) + " s";
    if (seconds < 3600) return std::to_string(seconds / 60) + " min";
    if (seconds < 48 * 3600)
        return std::to_string(seconds / 3600) + " h " + std::to_string(seconds / 60 % 60) + " min";
    return std::to_string(seconds / 86400) + " days";
}

std::string LeftText(const VolumeStatus& volume) {
    if (volume.storage == StorageState::Full) return "FULL, writes find no room";
    const std::string usable = SizeText(volume.room.usable) + " usable";
    if (!volume.bytesPerSecond) return usable + ", time left not known";
    const auto left = volume.SecondsLeft();
    if (!left) return usable + ", not filling";
    return usable + ", full in " + DurationText(*left) + " at the present rate";
}

// In words that the table has no room for.
std::string StorageDetail(const VolumeStatus& volume) {
    switch (volume.storage) {
        case StorageState::None:
            return volume.next.isProtected && volume.trouble.empty() && !volume.removable
                       ? "no storage: it would come up unprotected (kvrctl swap make)"
                       : "";
        case StorageState::Making:
            return "storage: being made or removed, " + SizeText(volume.room.total) + " so far";
        case StorageState::Ready:
        case StorageState::Full:
            break;
        case StorageState::Unsound:
            return "it " + volume.fault;
        default:
            return "storage: " +
                   StorageText(static_cast<std::uint32_t>(volume.storage) -
                               static_cast<std::uint32_t>(StorageState::MapDamaged) + kSwapMapBad);
    }
    if (!volume.isProtected) return {};
    return "[" + Bar(volume.room.used, volume.room.used + volume.room.usable, kBarWidth) + "] " +
           SizeText(volume.room.used) + " used, " + LeftText(volume);
}

std::string WhyOpenText(const VolumeStatus& volume) {
    if (volume.isThere && !volume.isProtected && volume.next.isProtected && volume.trouble.empty())
        return "protected from the next boot on";
    if (volume.isProtected && !volume.next.isProtected)
        return volume.next.whyOpen == WhyOpen::ProtectionOff ? "protection is off from the next boot on"
                                                             : "not protected from the next boot on";
    return {};
}

std::string VolumeText(const VolumeStatus& volume, const Clock& clock) {
    const std::string name = ShortName(volume.name);
    std::string text = name.size() > kLongestName ? Detail(name) : "";
    text += Detail(WhyOpenText(volume)) + Detail(StorageDetail(volume));
    if (!volume.removable && volume.next.isProtected) text += Detail(PlanDetail(volume.next, clock));
    if (!volume.clients.empty()) text += Detail("in use by " + volume.clients);
    return text;
}

std::string SwitchText(const MachineStatus& status) {
    if (status.enabled != status.enabledNext)
        return status.enabled
                   ? "Protection is on, but off from the next boot on."
                   : "Protection is off: the driver protects nothing. It is on from the next boot on.";
    return status.enabled ? "Protection is on." : "Protection is off: the driver protects nothing.";
}

// The rows, each followed by what belongs to it.
std::string VolumesText(const MachineStatus& status) {
    std::vector<Row> rows = {{"VOLUME", "NOW", "NEXT BOOT", "STORAGE", "USED", "USABLE"}};
    for (const VolumeStatus& volume : status.volumes) rows.push_back(RowOf(volume));
    std::vector<std::string> details = {""};
    for (const VolumeStatus& volume : status.volumes) details.push_back(VolumeText(volume, status.clock));
    return TableWith(rows, details);
}

std::string Coloured(const std::string& text) {
    std::string coloured;
    bool inWarning = false;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const std::string line = text.substr(at, end - at);
        inWarning = line.starts_with("WARNING: ") || (inWarning && line.starts_with("  "));
        const bool full = !inWarning && line.find(" FULL") != line.npos;
        const char* const colour = inWarning ? kYellow : full ? kRed : "";
        coloured += colour + line + (*colour ? kPlain : "") + "\n";
        at = end + 1;
    }
    return coloured;
}

}  // namespace

std::string StatusText(const MachineStatus& status, bool colour) {
    std::string text;
    for (const Warning& warning : status.warnings) text += Folded("WARNING: " + warning.text + ".", 2);
    text += Folded(SwitchText(status), 2) + Folded(HardeningText(status.hardening), 2);
    for (const MachineNotes::BootDeed& deed : status.deeds) text += Folded("This boot: " + deed.text + ".", 2);
    text += status.volumes.empty() ? "There are no volumes.\n" : "\n" + VolumesText(status);
    return colour ? Coloured(text) : text;
}

}  // namespace ctl
