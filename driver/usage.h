// What the system uses a device for. IRQL: PASSIVE_LEVEL.
#pragma once
#include "driver/record/volume_extension.h"

// Dispatch routine of IRP_MN_DEVICE_USAGE_NOTIFICATION; the caller holds the record. Counts the paging files
// that come to the device and go from it, and keeps DO_POWER_PAGABLE of the filter as they demand: a device in
// a paging file's path gets its power requests where nothing can be paged in. STATUS_DEVICE_NOT_READY for a
// device that has not started; otherwise the lower devices' status, on a failure of which nothing has changed.
// Other uses pass down. Takes UsageMutex, and holds it until the lower devices have answered.
NTSTATUS NotifyUsage(PDEVICE_OBJECT device, PIRP request);
