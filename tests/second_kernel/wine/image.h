// Native images, loaded into this program as a kernel loads a driver.
#pragma once
#include <string>

namespace image {

enum class Role { Driver, Program };

// What serves it.
struct Kernel {
    void* (*find)(const char* name);  // what an image may import by that name; null: nothing
    unsigned char (*irql)();          // of the calling thread; for a driver alone, as the time
    long long (*systemTime)();
};

// Has the system load the file, which lies beside this program, away from the address that it prefers, and
// fills its imports in. What an earlier call loaded in that role is gone. Returns the image's entry, or null
// and why in `trouble`. One call at a time.
[[nodiscard]] void* Load(Role role, const std::string& name, const Kernel& kernel, std::string& trouble);

}  // namespace image
