// Single files out of a volume's two states.
#pragma once
#include "tool/kvrctl/volume_states.h"

namespace ctl {

// Prints what differs between the fixed state's file and the present one: a unified diff of texts, otherwise
// where it begins. Throws Failure.
int ShowDifference(const Context& context, VolumeStates& states, const std::string& path);

}  // namespace ctl
