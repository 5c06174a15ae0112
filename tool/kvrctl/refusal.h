// What a failing status means to the one who asked.
#pragma once
#include <cstdint>
#include "tool/kvrctl/world.h"

namespace ctl {

// Throws Failure unless the control request succeeded.
void Require(const Answer& answer, std::uint32_t code);

}  // namespace ctl
