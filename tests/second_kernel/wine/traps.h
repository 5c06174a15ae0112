// Instructions of the driver's image that only a kernel's code may execute.
#pragma once
#include <cstddef>
#include "tests/second_kernel/wine/image.h"

namespace traps {

// From now on the image's reads of cr8 give the thread's IRQL, and its reads of the page that the kernel shares
// with all programs the system time. Any other exception that the image causes is printed with its offset into
// the image; one that nobody handles ends the program.
void Watch(const unsigned char* image, std::size_t bytes, const image::Kernel& kernel);

}  // namespace traps
