// A story of this kernel alone: the host kernel stops where a rule is broken.
#pragma once
#include "tests/second_kernel/stage.h"

extern const Story kRulesStory;
