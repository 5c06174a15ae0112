// The plan of what fails next.
#pragma once
#include "tests/second_kernel/stage.h"

namespace shim {

// Asked once by each call that may fail, before it has any effect. True: fail now. Only the driver's calls
// count.
[[nodiscard]] bool ShallFail(stage::Fault kind, const void* caller);

}  // namespace shim
