// The program that has the control device open, and what it asks. IRQL: PASSIVE_LEVEL.
#pragma once
#include <string_view>
#include "formats/kvr_ioctl.h"
#include "tests/second_kernel/common/requests.h"

struct Tool {
    PDEVICE_OBJECT Device;
    FILE_OBJECT File;
};

[[nodiscard]] NTSTATUS OpenTool(Tool* tool, PDEVICE_OBJECT control);
void CloseTool(Tool* tool);
[[nodiscard]] host::Outcome Ask(Tool* tool, ULONG code, const void* input = nullptr, ULONG inputLength = 0,
                                PVOID output = nullptr, ULONG outputLength = 0);

// The configuration, given as its text.
[[nodiscard]] NTSTATUS SetConfig(Tool* tool, std::u16string_view text);
// Does the configuration that the driver reads consist of this text?
[[nodiscard]] bool IsConfig(Tool* tool, std::u16string_view text);
[[nodiscard]] bool IsEnabled(Tool* tool);

// The record of that volume; a check fails when there is none.
KVR_FIXED_VOLUME_STATUS FixedStatus(Tool* tool, std::u16string_view volume);
KVR_REMOVABLE_VOLUME_STATUS RemovableStatus(Tool* tool, std::u16string_view volume);

[[nodiscard]] NTSTATUS StartStorage(Tool* tool, std::u16string_view volume, LONGLONG bytes);
// Asks until no provisioning thread runs, 60 seconds at most. The volume's record then.
KVR_FIXED_VOLUME_STATUS WaitForStorage(Tool* tool, std::u16string_view volume);
