// control/: the control interface of the user-mode tool, its reports, and the starting and stopping of the
// driver's system threads. kvr_ioctl.h is what tools include. IRQL: PASSIVE_LEVEL.
#pragma once
#include "formats/kvr_ioctl.h"
#include "driver/volume_extension.h"

inline constexpr char kIoSource[] = "io";  // the source file that this folder's assertions name

[[nodiscard]] NTSTATUS ControlDeviceIoControl(PDEVICE_OBJECT device, PVOID input, ULONG inputLength,
                                              PVOID output, ULONG outputLength, ULONG code,
                                              PIO_STATUS_BLOCK ioStatus);
void KvrDebug();
