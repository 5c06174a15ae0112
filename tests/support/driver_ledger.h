// What the driver rightly holds of the kernel's, counted by walking its own lists: whatever else is outstanding
// is a leak. Exact while the driver is quiet.
#pragma once
#include <string>
#include "platform/kernel.h"

namespace support {

struct DriverLedger {
    ULONGLONG poolBlocks = 0;  // tree nodes and records, locations, queued writes, objects of the lists
    ULONGLONG handles = 0;     // held files and threads
};

// For a driver that is loaded.
DriverLedger CountDriverHoldings();
// The first difference between that and what the kernel says is outstanding, or an empty string. Requests and
// locked pages that are outstanding count as differences.
std::string CheckLedger();

}  // namespace support
