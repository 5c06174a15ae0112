// What the configuration's text holds for a volume from the next boot on.
#pragma once
#include <string>
#include "tool/kvrctl/config_scan.h"
#include "tool/kvrctl/date.h"
#include "tool/kvrctl/volumes.h"

namespace ctl {

// What the next boot does with the changes of a fixed volume.
enum class Fate { Dropped, Kept, Merged };
Fate FateOf(const ConfigScan& scan, const std::u16string& volume, const Clock& clock);

// In words, for a table: "protected; changes are merged once, then kept until 2027-01-31 18:00 UTC+1".
std::string PlanText(const ConfigScan& scan, const KnownVolume& volume, const Clock& clock);

}  // namespace ctl
