// The cases, by what they measure.
#pragma once
#include "bench/computer.h"

namespace bench {

void RegisterMapCases(Computer& computer);      // the map's memory, saving and loading it
void RegisterRequestCases(Computer& computer);  // requests through the dispatch table

}  // namespace bench
