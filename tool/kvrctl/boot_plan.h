// What the configuration's text, as it is stored now, makes of a volume at the next boot.
#pragma once
#include <string>
#include "tool/kvrctl/config_scan.h"
#include "tool/kvrctl/date.h"
#include "tool/kvrctl/volumes.h"

namespace ctl {

enum class WhyOpen { Nothing, ProtectionOff, NotConfigured };

// What the next boot does with the changes of a fixed volume.
enum class Fate { Dropped, Kept, Merged };

struct BootPlan {
    bool isProtected = false;
    WhyOpen whyOpen = WhyOpen::Nothing;  // when it is not
    unsigned access = 0;                 // of a removable volume: 0 none, 1 protected, 2 hidden
    // Of a protected fixed volume:
    bool keeps = false;    // its mode, whatever is asked for one boot
    unsigned action = 0;   // asked for one boot: 0 none, 1 discard, 2 merge
    std::u16string until;  // YYYYMMDDhhmm; empty for none
    bool untilIsOver = false;

    Fate fate = Fate::Dropped;
};

BootPlan PlanOf(const ConfigScan& scan, const KnownVolume& volume, const Clock& clock);

// "not protected", "drops changes": what the next boot does, in two words.
std::string PlanWords(const BootPlan& plan, bool removable);
// The rest of it: until when, what is asked for one boot and what holds then. Empty where the words say it all.
std::string PlanDetail(const BootPlan& plan, const Clock& clock);
// Both, in a sentence without the point.
std::string PlanText(const BootPlan& plan, bool removable, const Clock& clock);

}  // namespace ctl
