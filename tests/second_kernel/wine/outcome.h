// What came of a boot of a story.
#pragma once
#include "platform/kernel.h"

namespace shim {

struct Outcome {
    ULONG checks;
    ULONG failures;
    const char* text;  // a line for each failure
    ULONG textBytes;
    const char* lines;  // what the driver had said before the first failure
    ULONG lineBytes;
};

// From here on checks are noted for this boot of this story. `story` is not copied.
void BeginOutcome(const char* story, ULONG boot);
Outcome EndOutcome();

}  // namespace shim
