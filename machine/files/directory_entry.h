// One file or directory as a listing shows it.
#pragma once
#include <cstdint>
#include <string>
#include "platform/kernel.h"

namespace machine {

struct DirectoryEntry {
    std::u16string name;
    std::uint64_t size = 0;  // bytes; 0 for a directory
    ULONG attributes = 0;    // FILE_ATTRIBUTE_ bits
    bool directory = false;
    // Neither a directory nor a file whose data may be used here: a link, a device, data that the guest alone
    // can read.
    bool foreign = false;
};

}  // namespace machine
