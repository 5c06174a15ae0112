// Every story, in the order in which they are played.
#pragma once
#include "tests/second_kernel/stage.h"

extern const Story kControlStory;
extern const Story kPlugAndPlayStory;
extern const Story kProvisioningStory;

inline constexpr const Story* kStories[] = {
    &kControlStory,
    &kPlugAndPlayStory,
    &kProvisioningStory,
};
