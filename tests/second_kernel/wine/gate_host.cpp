// The gate's side of the host kernel.
#include <cstdio>
#include <vector>
#include "platform/host/io/user_mode.h"
#include "tests/second_kernel/common/computer.h"
#include "tests/second_kernel/wine/gate.h"

namespace {

// A computer for kvrctl.exe: the driver with a fixed and a removable volume.
void MakeComputer() {
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

namespace gate {

bool Boot() {
    stage::BeginStory();
    stage::BeginBoot(0);
    MakeComputer();
    std::fputs(stage::Failures().c_str(), stderr);
    return stage::Failures().empty();
}

int Open(void*& file) {
    constexpr ACCESS_MASK kGenericWrite = 0x40000000;
    PFILE_OBJECT opened = nullptr;
    const NTSTATUS status = host::OpenDevice(u"\\??\\kvr", GENERIC_READ | kGenericWrite, opened);
    file = opened;
    return status;
}

// The host kernel takes the two buffers apart, as a program has them.
int Control(void* file, unsigned code, void* buffer, unsigned inputLength, unsigned outputLength,
            unsigned& returned) {
    std::vector<UCHAR> input(static_cast<UCHAR*>(buffer), static_cast<UCHAR*>(buffer) + inputLength);
    return host::DeviceIoControl(static_cast<PFILE_OBJECT>(file), code, input.data(), inputLength, buffer,
                                 outputLength, returned);
}

// Wine closes what the driver did not let a program open, too.
void Close(void* file) {
    if (file != nullptr) host::CloseDevice(static_cast<PFILE_OBJECT>(file));
}

}  // namespace gate
