#include "tool/kvrctl/plan.h"

namespace ctl {
namespace {

bool IsDateOver(const VolumeSettings& settings, const Clock& clock) {
    return settings.atBoot == config::kBootModeKeep && !settings.date.empty() && IsOver(settings.date, clock);
}

// A section that the driver acts on, or null.
const Section* Protecting(const ConfigScan& scan, const std::u16string& volume) {
    const Section* section = scan.protection ? scan.Find(volume) : nullptr;
    const bool counts = section && section->volume.isProtected && section->volume.switchWasOn;
    return counts ? section : nullptr;
}

// A merge comes before everything else; a date that is over counts for one boot, and is gone then.
Fate FateOf(const VolumeSettings& settings, const Clock& clock) {
    if (settings.action == config::kActionMerge) return Fate::Merged;
    const bool dropped = settings.atBoot == config::kBootModeDiscard ||
                         settings.action == config::kActionDiscard || IsDateOver(settings, clock);
    return dropped ? Fate::Dropped : Fate::Kept;
}

std::string ModeText(const VolumeSettings& settings, const Clock& clock) {
    if (settings.atBoot == config::kBootModeDiscard) return "dropped at every boot";
    const bool until = !settings.date.empty() && !IsOver(settings.date, clock);
    return until ? "kept until " + DateText(settings.date, clock) : "kept";
}

std::string FixedPlan(const VolumeSettings& settings, const Clock& clock) {
    const Fate fate = FateOf(settings, clock);
    const std::string text = "protected; changes are ", then = ", then " + ModeText(settings, clock);
    if (fate == Fate::Merged) return text + "merged once" + then;
    if (fate == Fate::Kept || settings.atBoot == config::kBootModeDiscard)
        return text + ModeText(settings, clock);
    const bool date = settings.action != config::kActionDiscard;
    return text + "dropped at the next boot" +
           (date ? " (" + DateText(settings.date, clock) + " is over)" : std::string()) + then;
}

}  // namespace

Fate FateOf(const ConfigScan& scan, const std::u16string& volume, const Clock& clock) {
    const Section* section = Protecting(scan, volume);
    return section ? FateOf(section->volume, clock) : Fate::Dropped;
}

std::string PlanText(const ConfigScan& scan, const KnownVolume& volume, const Clock& clock) {
    if (!scan.protection) return "not protected (protection is off)";
    if (volume.removable && !scan.Find(volume.name)) return AccessText(scan.removableAccess);
    const Section* section = Protecting(scan, volume.name);
    if (!section) return "not protected";
    if (section->kind == SectionKind::RemovableVolume) return AccessText(section->volume.accessMode);
    return FixedPlan(section->volume, clock);
}

}  // namespace ctl
