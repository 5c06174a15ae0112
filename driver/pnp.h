// Attachment to volumes and disks, Plug and Play, power, flush and shutdown of filter devices.
// IRQL: PASSIVE_LEVEL, but for KvrPower (at most DISPATCH_LEVEL).
#pragma once
#include "driver/record/volume_extension.h"

NTSTATUS AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo);
NTSTATUS KvrPnp(PDEVICE_OBJECT device, PIRP request);
NTSTATUS StartDevice(PDEVICE_OBJECT device, PIRP request);
NTSTATUS RemoveDevice(PDEVICE_OBJECT device, PIRP request);
NTSTATUS KvrPower(PDEVICE_OBJECT device, PIRP request);
NTSTATUS KvrShutdown(PDEVICE_OBJECT device, PIRP request);
NTSTATUS KvrFlush(PDEVICE_OBJECT device, PIRP request);
// TRUE when the extents were read; otherwise the record keeps those it had. Takes gVolumeListLock.
[[nodiscard]] BOOLEAN GetVolumeExtents(PVOLUME_EXTENSION volume);
[[nodiscard]] BOOLEAN IsDiskClassDevice(PDEVICE_OBJECT pdo);
[[nodiscard]] BOOLEAN IsVolumeClassDevice(PDEVICE_OBJECT pdo);
// Removable, read-only and floppy are shown by the filter as by the device below.
void CopyTargetCharacteristics(PDEVICE_OBJECT filter, PDEVICE_OBJECT target);
// Gives a record without a name that of the first named device at or below Target, reporting it with `message`,
// a format for the two devices' addresses and the name. Takes gVolumeListLock.
void FindVolumeName(PVOLUME_EXTENSION volume, PCSTR message);
// Keeps new requests away from the record, waits until nobody uses it any more, releases everything that hangs
// on it, and takes its filter device out of the stack and deletes it. The caller must not hold RemoveLock.
// FALSE, and nothing done, when that is already under way.
BOOLEAN TakeDownFilter(PVOLUME_EXTENSION volume);
