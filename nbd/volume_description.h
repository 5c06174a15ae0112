// What a volume is, for people to choose one.
#pragma once
#include "formats/control_wire.h"
#include "machine/boot/machine.h"

namespace nbd {

// The machine is on, and no client uses the volume.
tool::wire::VolumeText DescribeVolume(machine::Machine& machine, machine::Volume& volume);

}  // namespace nbd
