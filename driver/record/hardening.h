// The second, stricter set of rules. The registry's Hardening decides, once per boot and before any request is
// looked at: without it, or with 0, every request is treated as always; else what the rules that name
// gHardening say holds as well. They also hold while the registry fails to say.
#pragma once
#include <atomic>
#include "platform/kernel.h"

extern std::atomic<BOOLEAN> gHardening;
extern std::atomic<BOOLEAN> gHardeningKnown;  // the registry has answered in this boot
// Under gHardening: the boot configuration store does not lie on the volume that the system lies on.
extern std::atomic<BOOLEAN> gBootStoreElsewhere;

// Reads the switch at the first call of a boot, which comes with the first device that starts, and at the next
// ones until the registry has answered; later calls do nothing, so a change of the value holds from the next
// boot on. IRQL: PASSIVE_LEVEL; takes no lock.
void LoadHardening();
