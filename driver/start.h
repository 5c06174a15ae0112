// Starting a device: what it is, where it lies, and what becomes of a removable volume. IRQL: PASSIVE_LEVEL.
#pragma once
#include "driver/record/volume_extension.h"

// Sends the request down, waits, fills the record in and completes the request: with the lower status, or with
// STATUS_ACCESS_DENIED for a removable volume that is to be hidden. Takes gVolumeListLock.
NTSTATUS StartDevice(PDEVICE_OBJECT device, PIRP request);
// TRUE when the extents were read; otherwise the record keeps those it had. Takes gVolumeListLock.
[[nodiscard]] BOOLEAN GetVolumeExtents(PVOLUME_EXTENSION volume);
// By the class that the device's setup gave it; FALSE also when it cannot be asked.
[[nodiscard]] BOOLEAN IsDiskClassDevice(PDEVICE_OBJECT pdo);
[[nodiscard]] BOOLEAN IsVolumeClassDevice(PDEVICE_OBJECT pdo);
