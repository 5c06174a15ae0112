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

BootPlan FixedPlan(const ConfigScan& scan, const VolumeSettings& settings, const Clock& clock) {
    BootPlan plan;
    plan.isProtected = true;
    plan.keeps = settings.atBoot == 1;
    plan.action = settings.action;
    if (plan.keeps && IsDate(settings.date)) plan.until = settings.date;
    plan.untilIsOver = !plan.until.empty() && IsOver(plan.until, clock);
    plan.fate = FateOf(scan, settings.id, clock);
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
    return FixedPlan(scan, section->volume, clock);
}

std::string PlanWords(const BootPlan& plan, bool removable) {
    if (!plan.isProtected) return "not protected";
    if (removable) return plan.access == 2 ? "hidden" : "read-only";
    static constexpr const char* kWords[] = {"drops changes", "keeps changes", "merges changes"};
    return kWords[static_cast<std::size_t>(plan.fate)];
}

std::string UntilText(const BootPlan& plan, const Clock& clock) {
    if (plan.until.empty()) return {};
    const std::string date = DateText(plan.until, clock);
    return plan.untilIsOver ? "keep until " + date + " is over: dropped at the next boot"
                            : "keeps changes until " + date;
}

std::string PendingText(const BootPlan& plan) {
    if (plan.action == 0) return {};
    const std::string then = plan.keeps ? "changes are kept" : "every boot drops them";
    return std::string(plan.action == 2 ? "merge" : "discard") + " at the next boot, once; after that " + then;
}

}  // namespace ctl
