// Attachment: a filter device with its record above every volume and disk that is offered. IRQL: PASSIVE_LEVEL.
#pragma once
#include "driver/record/volume_extension.h"

// The driver's AddDevice: makes, attaches and lists a filter above `pdo`. A failure is IoCreateDevice's status,
// or STATUS_NO_SUCH_DEVICE when it cannot be attached; nothing is left then. Takes gVolumeListLock and
// SwapLock.
NTSTATUS AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo);
// Removable, read-only and floppy are shown by the filter as by the device below.
void CopyTargetCharacteristics(PDEVICE_OBJECT filter, PDEVICE_OBJECT target);
// Gives a record without a name that of the first named device at or below Target, reporting it with `message`,
// a format for the two devices' addresses and the name. Takes gVolumeListLock.
void FindVolumeName(PVOLUME_EXTENSION volume, PCSTR message);
