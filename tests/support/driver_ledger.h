// What the driver rightly holds of the kernel's, counted by walking its own lists: whatever else is outstanding
// is a leak. Exact while the driver is quiet.
#pragma once
#include <string>
#include "platform/kernel.h"

namespace support {

// For a driver that is loaded: the first difference between that and what the kernel says is outstanding, or an
// empty string. Requests and locked pages that are outstanding count as differences.
std::string CheckLedger();

}  // namespace support
