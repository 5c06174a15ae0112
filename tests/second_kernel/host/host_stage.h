// The stage over the host kernel, as its runner drives it.
#pragma once
#include <string>
#include "tests/second_kernel/stage.h"

namespace host_stage {

// The entry of the driver under test, every global of which has its load value. Null when there is none.
[[nodiscard]] PDRIVER_INITIALIZE DriverToLoad();

// Everything before the story's first boot: media and registry empty, no kernel files.
void BeginStory(const Story& story);
// A kernel that is on, without the driver.
void BeginBoot(ULONG index);
// Waits for what still runs, looks for what the boot left behind, and turns the kernel off.
void EndBoot();
// The failed checks of the story, a line each; empty when it holds.
[[nodiscard]] const std::string& Failures();
// The driver's last diagnostics before the first failure.
[[nodiscard]] const std::string& Diagnostics();

}  // namespace host_stage
