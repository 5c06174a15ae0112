// The stored configuration text: reading it, and changing it in front of the user.
#pragma once
#include <string>
#include "tool/kvrctl/commands.h"

namespace ctl {

// Without the zeros behind it; empty when there is no configuration yet.
std::u16string ReadStored(const Context& context);

// Changed lines with '-' and '+' before them and two unchanged ones around; empty when nothing changed. Lines
// are shown without their line ends; a line of which only the end changed counts as changed.
std::string DiffText(const std::string& before, const std::string& after, bool colour);

// Shows the difference, stores `after` (not with `dryRun`) and says from when on it holds. Throws Failure.
void Store(const Context& context, const std::u16string& before, const std::u16string& after, bool dryRun);

}  // namespace ctl
