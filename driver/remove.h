// Plug and Play of filter devices, and the end of a record. IRQL: PASSIVE_LEVEL, with no lock held.
#pragma once
#include "driver/record/volume_extension.h"

// Dispatch routine of IRP_MJ_PNP. Start, removal and the use of the device have routines of their own; a query
// for the removal of a record that the driver needs is refused with STATUS_INSUFFICIENT_RESOURCES; all else
// passes down. A request for a record that is being taken down ends with STATUS_DELETE_PENDING.
NTSTATUS KvrPnp(PDEVICE_OBJECT device, PIRP request);
// Sends the request down, waits, takes the filter down and completes the request with the lower status; refuses
// it with STATUS_INSUFFICIENT_RESOURCES as the query.
NTSTATUS RemoveDevice(PDEVICE_OBJECT device, PIRP request);
// Keeps new requests away from the record, waits until nobody uses it any more, releases everything that hangs
// on it, and takes its filter device out of the stack and deletes it. The caller must not hold RemoveLock.
// FALSE, and nothing done, when that is already under way. Takes gSwapFileMutex, gVolumeListLock, StorageMutex
// and SwapLock, one after the other.
BOOLEAN TakeDownFilter(PVOLUME_EXTENSION volume);
