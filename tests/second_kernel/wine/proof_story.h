// kvrprove.exe as it is shipped, every act of its proof against the driver: a boot for each act, on a computer
// whose system volume is the protected one, the acts' order and answers on a disk of their own.
#pragma once
#include "tests/second_kernel/stage.h"

extern const Story kProofStory;
