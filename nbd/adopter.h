// Taking over the disks of another machine.
#pragma once
#include <string>
#include <vector>
#include "nbd/folder_maker.h"

namespace nbd {

// Without images: the machine in the folder takes back the disks that it names. With images: a new machine is
// made on them. Changes that the other machine kept go on where both machines know one storage in one place;
// all others are lost, which is refused unless `dropChanges`. Returns a sentence for each disk and volume of
// which something is to be said. Throws Error, and then nothing was changed.
std::vector<std::string> Adopt(const NewMachine& machine, bool dropChanges);

}  // namespace nbd
