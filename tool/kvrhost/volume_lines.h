// A machine's volumes as lines for people.
#pragma once
#include <string>
#include <vector>
#include "formats/control_wire.h"

namespace tool {

// A table with a head line; empty without volumes. The machine's own system volume is left out.
std::string VolumeLines(const std::vector<wire::VolumeText>& volumes);

}  // namespace tool
