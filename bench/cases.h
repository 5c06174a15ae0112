// The cases, by what they measure.
#pragma once
#include "bench/computer.h"

namespace bench {

void RegisterRequestCases(Computer& computer);     // requests that leave the map as it is
void RegisterMapCases(Computer& computer);         // the map's memory, saving and loading it
void RegisterFirstWriteCases(Computer& computer);  // requests that make it grow

}  // namespace bench
