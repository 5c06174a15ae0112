// The driver as it is linked into this program: its entry sets every global anew.
#include "driver/entry.h"
#include "tests/second_kernel/stage.h"

PDRIVER_INITIALIZE stage::DriverToLoad() {
    return DriverEntry;
}

const Story* stage::OwnStory() {
    return nullptr;
}
