// The acts themselves: each uses the driver as an administrator and his programs would, and reports what came
// of it, a row for each thing.
#pragma once
#include "prove/guest.h"

namespace proof {

// `act`: a number of formats/proof_acts.h; another one reports a row that failed. `storageBytes` are made for
// the volume's changes. One act at a time.
void Play(Guest& guest, std::uint32_t act, std::uint64_t storageBytes);

}  // namespace proof
