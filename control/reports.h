// The volume reports: as many whole records as fit, in the order in which the devices were added.
#pragma once
#include "formats/kvr_ioctl.h"
#include "driver/volume_extension.h"

[[nodiscard]] NTSTATUS ReportRemovableVolumes(PVOID buffer, ULONG length, ULONG_PTR* written);
[[nodiscard]] NTSTATUS ReportFixedVolumes(PVOID buffer, ULONG length, ULONG_PTR* written);
