// The driver as it is linked into this program: its entry sets every global anew.
#include "driver/entry.h"
#include "tests/second_kernel/host/host_stage.h"

PDRIVER_INITIALIZE host_stage::DriverToLoad() {
    return DriverEntry;
}
