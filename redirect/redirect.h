// redirect/: the read and write dispatch routines of the filter devices, which decide for each request whether
// it passes down, is refused, teaches the driver where one of its own files lies, or is redirected; the cutting
// of a redirected request into runs (segments.h) and their I/O (request_io.h); the write cache. Start with
// read_path.cpp and write_path.cpp.
#pragma once
#include "driver/record/volume_extension.h"

extern KEVENT gBootStatusEvent;  // set when the boot status file is written

// Dispatch routines of IRP_MJ_READ and IRP_MJ_WRITE. IRQL: PASSIVE_LEVEL for volumes, at most APC_LEVEL for
// disks.
NTSTATUS KvrRead(PDEVICE_OBJECT device, PIRP request);
NTSTATUS KvrWrite(PDEVICE_OBJECT device, PIRP request);
