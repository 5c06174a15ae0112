// redirect/: the read and write dispatch routines of the filter devices, which decide for each request
// whether it passes down, is refused, teaches the driver where one of its own files lies, or is redirected;
// the write cache; the object that leads from a protected volume to the volume that holds its swap.
#pragma once
#include "driver/volume_extension.h"

// Dispatch routines of IRP_MJ_READ and IRP_MJ_WRITE. IRQL: PASSIVE_LEVEL for volumes, at most APC_LEVEL for
// disks.
NTSTATUS KvrRead(PDEVICE_OBJECT device, PIRP request);
NTSTATUS KvrWrite(PDEVICE_OBJECT device, PIRP request);
