// The gate's side of the host kernel.
#include <cstdio>
#include <vector>
#include "platform/host/io/user_mode.h"
#include "tests/second_kernel/stage.h"
#include "tests/second_kernel/wine/gate.h"
#include "tests/second_kernel/wine/tool_story.h"

namespace gate {

bool Boot() {
    stage::BeginStory();
    stage::BeginBoot(0);
    kToolStory.boots[0]();
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
