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

struct StoreOptions {
    bool dryRun = false;       // show only
    bool dropChanges = false;  // changes that the next boot was to keep or merge may be lost by it
};
// Shows the difference, stores `after` and says from when on it holds. Throws Failure, also where changes would
// be lost and the user has not said that this is meant.
void Store(const Context& context, const std::u16string& before, const std::u16string& after,
           const StoreOptions& options);

}  // namespace ctl
