#include "tool_story.h"
#include "tests/second_kernel/common/computer.h"

namespace {

void Leave() {
    stage::Step("a computer for the tool");
    MountKernelFiles();
    PDRIVER_OBJECT driver;
    if (!stage::CheckStatus(stage::LoadDriver(driver), STATUS_SUCCESS, "the driver loads")) return;
    PUCHAR sectors = stage::Medium(0, kMiB);
    PDEVICE_OBJECT fixed =
        MakeRamDevice({.Name = W("\\Device\\HarddiskVolume71"), .Sectors = sectors, .Size = kMiB});
    PDEVICE_OBJECT stick = MakeRamDevice(
        {.Name = W("\\Device\\HarddiskVolume72"), .Sectors = sectors, .Size = kMiB, .IsRemovable = true});
    if (!fixed || !stick) return;
    (void)stage::CheckStatus(AddAndStart(driver, fixed), STATUS_SUCCESS, "the fixed volume starts");
    (void)stage::CheckStatus(AddAndStart(driver, stick), STATUS_SUCCESS, "the removable volume starts");
}

}  // namespace

const Story kToolStory = {"tool", "a computer for kvrctl.exe", {Leave}};
