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
    ULONG length;
    std::u16string file;  // name of the file object, if any
};

struct Plan {
    bool failEntry = false;
    bool refuseQueryRemove = false;  // by every volume's filter
    bool refuseStartOfRemovable = false;
    bool detachDisksAtShutdown = false;
    void (*atPower)(PDEVICE_OBJECT below) = nullptr;  // called with what is below each volume's filter
    void (*thread)(void*) = nullptr;                  // a system thread started by the entry
};

// One boot's record; Reset() before each boot.
void Reset(const Plan& plan = {});
std::vector<Seen> TakeSeen();
unsigned CountOf(UCHAR major, int minor = -1);

// \Device\StandIn answers buffered control requests by adding 1 to each byte of the input.
NTSTATUS Entry(PDRIVER_OBJECT driver, PUNICODE_STRING path);

}  // namespace stand_in
