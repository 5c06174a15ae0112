// Every story, in the order in which they are played.
#pragma once
#include "tests/second_kernel/stage.h"

extern const Story kControlStory;

inline constexpr const Story* kStories[] = {
    &kControlStory,
};
