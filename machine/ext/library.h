// The ext library's declarations, for the sources that call it.
#pragma once
#include <cstdint>
#include <ext2fs/ext2fs.h>

namespace machine {

// Frees what the library has allocated for one handle or buffer.
struct ExtMemory {
    void operator()(void* memory) const { ext2fs_free_mem(&memory); }
};

}  // namespace machine
