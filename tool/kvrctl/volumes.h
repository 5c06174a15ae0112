// Which volume the user means.
#pragma once
#include <string>
#include <vector>
#include "client/control_client.h"

namespace ctl {

// A whole disk's own device stands among the fixed volumes; nothing is done to it.
bool IsDisk(const std::u16string& name);

struct KnownVolume {
    std::u16string name;
    bool removable = false;
    VolumeDescription told{};  // by the machine
};

// The machine's volumes, without the disks, in its order.
std::vector<KnownVolume> KnownVolumes(Client& client);

// `words`: an object name, its last part, the number at its end, its partition's GUID, or its label; any case.
// What is first in this list goes before what is behind. Throws Failure (kExitUsage), with the names that there
// are, for none and for several.
KnownVolume FindVolume(const std::vector<KnownVolume>& volumes, const std::string& words);

// Throws Failure (kExitUsage) for a volume on which the machine knows that no storage can be.
void RequireRoomForStorage(const KnownVolume& volume);

// The name without \Device\ in front.
std::string ShortName(const std::u16string& name);

}  // namespace ctl
