// The driver's lock order, told to the host kernel, which stops a thread that takes a lock out of turn. The
// order is the one that driver/volume_extension.h gives; locks of one rank are never held together.
#pragma once
#include "driver/record/volume_extension.h"

namespace support {

void RankGlobalLocks();                          // once is enough: it outlives boots
void RankRecordLocks(PVOLUME_EXTENSION volume);  // after AddDevice, before others use the record
void RankStorageLocks();                         // of the storage objects that exist now; while nothing runs

}  // namespace support
