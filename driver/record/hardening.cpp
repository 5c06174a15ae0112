#include "driver/record/hardening.h"
#include "driver/record/registry.h"

void LoadHardening() {
    if (gHardeningKnown) return;
    gHardening = ReadDriverSwitch(W("Hardening"));
    gHardeningKnown = TRUE;
}
