// The stored configuration text: reading it, and changing it in front of the user.
#pragma once
#include <string>
#include "tool/kvrctl/commands.h"

namespace ctl {

// Without the zeros behind it; empty when there is no configuration yet.
std::u16string ReadStored(const Context& context);

// Shows the difference, stores `after` (not with `dryRun`) and says from when on it holds. Throws Failure.
void Store(const Context& context, const std::u16string& before, const std::u16string& after, bool dryRun);

}  // namespace ctl
