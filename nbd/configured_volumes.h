// Which volumes the configuration wants protected, whether or not the machine has them.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace nbd {

// The object names of the fixed volumes that the text, as the driver hands it out, has protected while its
// master switch is on; each once, in its order. Read with the driver's own scanner and rules.
std::vector<std::u16string> ProtectedVolumes(const std::vector<std::uint8_t>& text);
// ... and that are to be merged, once, at the boot that reads it.
std::vector<std::u16string> VolumesToMerge(const std::vector<std::uint8_t>& text);

}  // namespace nbd
