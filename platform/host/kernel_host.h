// Power of the host kernel: each power-on finds every table empty, as a booting kernel does.
#pragma once
#include "platform/host/io/irp.h"

namespace host {

struct LeakReport {
    ULONG handles;       // open handles
    ULONG devices;       // devices that exist
    ULONG threads;       // system threads that run or that somebody still refers to
    Outstanding memory;  // requests and MDLs
};

// Prepares empty tables: devices, drivers, names, handles, mounts, the shutdown list, the registry store.
void PowerOn();

// Reports what is left and then drops it. Nothing of the boot may run any more, and no pointer into it be used.
LeakReport PowerOff();

// What exists now.
LeakReport CountLeaks();

}  // namespace host
