// The cases, by what they measure.
#pragma once
#include "bench/computer.h"

namespace bench {

void RegisterRequestCases(Computer& computer);     // requests that leave the map as it is
void RegisterMapCases(Computer& computer);         // the map's memory, saving and loading it
void RegisterFirstWriteCases(Computer& computer);  // requests that make it grow

// Of a volume's map, in nanoseconds of processor time: a save, and a load of what is saved, `chunks` of them.
double SaveMap(PVOLUME_EXTENSION volume);
double LoadMap(PVOLUME_EXTENSION volume, ULONG chunks);
ULONG CountSwapped(PVOLUME_EXTENSION volume);
// What the pool holds more with the saved map, of `chunks`, than without it. Loads it anew.
double BytesPerChunk(PVOLUME_EXTENSION volume, ULONG chunks);

}  // namespace bench
