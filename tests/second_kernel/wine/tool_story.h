// A computer for kvrctl.exe: the driver with a fixed and a removable volume, left as they are when the boot's
// function returns, for programs of this kernel's user mode.
#pragma once
#include "tests/second_kernel/stage.h"

extern const Story kToolStory;
