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
};

// The machine's volumes, without the disks, in its order.
std::vector<KnownVolume> KnownVolumes(Client& client);

// `words`: an object name, its last part, or the number at its end; any case. Throws Failure (kExitUsage), with
// the names that there are, for none and for several.
KnownVolume FindVolume(const std::vector<KnownVolume>& volumes, const std::string& words);

// The name without \Device\ in front.
std::string ShortName(const std::u16string& name);

}  // namespace ctl
