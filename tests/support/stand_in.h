// A filter driver that passes everything on, in place of the real one: it shows what a machine sends a driver,
// in which order, and can be told to refuse.
#pragma once
#include <atomic>
#include <mutex>
#include <string>
#include <vector>
#include "platform/kernel.h"

namespace stand_in {

struct Seen {
    UCHAR major;
    UCHAR minor;
    std::u16string device;  // the name of the stack's bottom
    LONGLONG offset;        // reads and writes
};

struct Plan {
    bool refuseQueryRemove = false;  // by every volume's filter
    bool detachDisksAtShutdown = false;
};

// One boot's record; Reset() before each boot.
void Reset(const Plan& plan = {});
std::vector<Seen> TakeSeen();

NTSTATUS Entry(PDRIVER_OBJECT driver, PUNICODE_STRING path);

}  // namespace stand_in
