// Proving that a machine's fixed states did not change. Works with the machine off, and on.
#pragma once
#include <string>

namespace tool {

// Each returns an exit code and throws an Error with a sentence for the user.
int Seal(const std::string& folder);
// 0 when every sector is as it was sealed, 1 when one is not or a volume has no seal that holds.
int Verify(const std::string& folder);

}  // namespace tool
