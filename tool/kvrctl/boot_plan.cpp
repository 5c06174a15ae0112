#include "tool/kvrctl/boot_plan.h"

namespace ctl {
namespace {

BootPlan Open(WhyOpen why) {
    BootPlan plan;
    plan.whyOpen = why;
    return plan;
}

BootPlan RemovablePlan(unsigned access) {
    BootPlan plan;
    plan.isProtected = access != 0;
    plan.access = access;
    if (access == 0) plan.whyOpen = WhyOpen::NotConfigured;
    return plan;
}

// A merge comes before everything else; a date that is over counts for one boot, and is gone then.
Fate FateOf(const BootPlan& plan) {
    if (plan.action == config::kActionMerge) return Fate::Merged;
    const bool dropped = !plan.keeps || plan.action == config::kActionDiscard || plan.untilIsOver;
    return dropped ? Fate::Dropped : Fate::Kept;
}

BootPlan FixedPlan(const VolumeSettings& settings, const Clock& clock) {
    BootPlan plan;
    plan.isProtected = true;
    plan.keeps = settings.atBoot == config::kBootModeKeep;
    plan.action = settings.action;
    if (plan.keeps && IsDate(settings.date)) plan.until = settings.date;
    plan.untilIsOver = !plan.until.empty() && IsOver(plan.until, clock);
    plan.fate = FateOf(plan);
    return plan;
}

}  // namespace

BootPlan PlanOf(const ConfigScan& scan, const KnownVolume& volume, const Clock& clock) {
    if (!scan.protection) return Open(WhyOpen::ProtectionOff);
    const Section* section = scan.Find(volume.name);
    if (!section && volume.removable) return RemovablePlan(scan.removableAccess);
    if (!section || !section->volume.isProtected || !section->volume.switchWasOn)
        return Open(WhyOpen::NotConfigured);
    if (section->kind == SectionKind::RemovableVolume) return RemovablePlan(section->volume.accessMode);
    return FixedPlan(section->volume, clock);
}

std::string PlanWords(const BootPlan& plan, bool removable) {
    if (!plan.isProtected) return "not protected";
    if (removable) return plan.access == 2 ? "hidden" : "read-only";
    static constexpr const char* kWords[] = {"drops changes", "keeps changes", "merges changes"};
    return kWords[static_cast<std::size_t>(plan.fate)];
}

std::string PlanDetail(const BootPlan& plan, const Clock& clock) {
    const std::string date = plan.until.empty() ? "" : DateText(plan.until, clock);
    const std::string until = date.empty() || plan.untilIsOver ? "" : " until " + date;
    if (plan.action != 0)
        return std::string(plan.action == config::kActionMerge ? "merge" : "discard") +
               " at the next boot, once; then " + (plan.keeps ? "kept" + until : "dropped at every boot");
    if (plan.untilIsOver) return "keep until " + date + " is over: dropped at the next boot, then kept";
    return until.empty() ? "" : "keeps changes" + until;
}

std::string PlanText(const BootPlan& plan, bool removable, const Clock& clock) {
    const std::string words = PlanWords(plan, removable), detail = PlanDetail(plan, clock);
    if (plan.whyOpen == WhyOpen::ProtectionOff) return words + " (protection is off)";
    if (detail.starts_with(words)) return detail;
    return detail.empty() ? words : words + "; " + detail;
}

}  // namespace ctl
