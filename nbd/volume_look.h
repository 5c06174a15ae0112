// The volumes of a machine that is off.
#pragma once
#include <vector>
#include "formats/control_wire.h"
#include "nbd/machine_folder.h"

namespace nbd {

// Those of the disks that the folder names, as the first boot of a new machine will number them. Changes
// nothing on them. Throws Error.
std::vector<tool::wire::VolumeText> LookAtVolumes(const MachineFolder& folder);

}  // namespace nbd
