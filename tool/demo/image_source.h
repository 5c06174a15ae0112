// A disk image that a user gives: which volume of it is the one to be shown, and whether there is room on it.
#pragma once
#include <cstdint>
#include <string>
#include "tool/demo/computer.h"

namespace tool {

struct SwapPlan {
    std::int64_t swapBytes;        // of swap storage to make
    std::uint64_t neededOnVolume;  // bytes free that the storage and the demonstration's files need
};

// The largest NTFS volume of a raw image: the image itself, or a partition of its MBR or GPT. Throws Error,
// with a sentence that names the image, when it cannot be read or holds none.
Place FindVolume(const std::string& image);

// As much swap storage as the demonstration likes, less on a volume with less room. Throws Error, naming
// `image`, when `freeBytes` is too little for anything.
SwapPlan PlanSwap(const std::string& image, std::uint64_t freeBytes);

}  // namespace tool
