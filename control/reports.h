// The volume reports (KVR_REMOVABLE_VOLUME_STATUS, KVR_FIXED_VOLUME_STATUS): as many whole records as fit into
// `length` bytes, in the order in which the devices were added; `written` receives their bytes. Always
// STATUS_SUCCESS. Writing to `buffer`, which is the caller's, may raise; nothing stays locked then. Both take
// gVolumeListLock and, for the fixed volumes, each record's SwapLock. IRQL: PASSIVE_LEVEL.
#pragma once
#include "platform/kernel.h"

[[nodiscard]] NTSTATUS ReportRemovableVolumes(PVOID buffer, ULONG length, ULONG_PTR* written);
[[nodiscard]] NTSTATUS ReportFixedVolumes(PVOID buffer, ULONG length, ULONG_PTR* written);
