// The lines that a user of a machine that is on pastes into a shell.
#pragma once
#include <string>
#include "nbd/machine_folder.h"

namespace tool {

// For virtual machines with either firmware, a mount, a copy, the list of exports and the end.
std::string LinesToPaste(const nbd::MachineFolder& folder);

}  // namespace tool
