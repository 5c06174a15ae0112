// control/: the control interface of the user-mode tool, its reports, and the starting and stopping of
// provisioning. formats/kvr_ioctl.h is what tools include. IRQL: PASSIVE_LEVEL.
#pragma once
#include "platform/kernel.h"

inline constexpr char kIoSource[] = "io";  // the source file that this folder's assertions name

[[nodiscard]] NTSTATUS ControlDeviceIoControl(PDEVICE_OBJECT device, PVOID input, ULONG inputLength,
                                              PVOID output, ULONG outputLength, ULONG code,
                                              PIO_STATUS_BLOCK ioStatus);
void KvrDebug();
