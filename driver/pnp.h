// Attachment to volumes and disks, Plug and Play, power, flush and shutdown of filter devices.
#pragma once
#include "driver/volume_extension.h"

NTSTATUS AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo);
NTSTATUS KvrPnp(PDEVICE_OBJECT device, PIRP request);
NTSTATUS StartDevice(PDEVICE_OBJECT device, PIRP request);
NTSTATUS RemoveDevice(PDEVICE_OBJECT device, PIRP request);
NTSTATUS KvrPower(PDEVICE_OBJECT device, PIRP request);
NTSTATUS KvrShutdown(PDEVICE_OBJECT device, PIRP request);
NTSTATUS KvrFlush(PDEVICE_OBJECT device, PIRP request);
[[nodiscard]] BOOLEAN GetVolumeExtents(PVOLUME_EXTENSION volume);
[[nodiscard]] BOOLEAN IsDiskClassDevice(PDEVICE_OBJECT pdo);
[[nodiscard]] BOOLEAN IsVolumeClassDevice(PDEVICE_OBJECT pdo);
void CopyTargetCharacteristics(PDEVICE_OBJECT filter, PDEVICE_OBJECT target);
