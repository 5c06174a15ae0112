// A failure of the machine as a client hears of it.
#pragma once
#include <string>
#include "platform/kernel.h"

namespace nbd {

// The errno that says most nearly what the status does; the protocol knows a handful.
int ErrnoOf(NTSTATUS status);
// "0xC0000185"
std::string Hex(NTSTATUS status);

}  // namespace nbd
