// Removing storage, and what must be left then. IRQL: PASSIVE_LEVEL.
#pragma once
#include "tests/second_kernel/common/computer.h"

// Removes the data volume's storage; the request carries no more than the volume's name.
void RemoveStorage(Computer* computer);
// No storage, no files, no location in the registry, no thread, and so many pool blocks of the driver.
void CheckNoStorage(Computer* computer, LONG blocks);
