// Every story, in the order in which they are played.
#pragma once
#include "tests/second_kernel/stage.h"

extern const Story kControlStory;
extern const Story kPlugAndPlayStory;
extern const Story kProvisioningStory;
extern const Story kProtectionKeepStory;
extern const Story kProtectionDiscardStory;
extern const Story kProtectionMergeStory;
extern const Story kRefusalsStory;
extern const Story kFaultsStory;

inline constexpr const Story* kStories[] = {
    &kControlStory,           &kPlugAndPlayStory,     &kProvisioningStory, &kProtectionKeepStory,
    &kProtectionDiscardStory, &kProtectionMergeStory, &kRefusalsStory,     &kFaultsStory,
};
