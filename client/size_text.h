// Sizes and counts as people read them.
#pragma once
#include <cstdint>
#include <string>

namespace ctl {

// "1.5 GiB", "512 bytes".
std::string SizeText(std::uint64_t bytes);
// "1 file", "3 files".
std::string CountText(std::uint64_t number, const std::string& thing);

}  // namespace ctl
