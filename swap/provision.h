// Making, holding and removing the storage files. System threads; IRQL: PASSIVE_LEVEL.
#pragma once
#include "driver/record/volume_list.h"
#include "formats/kvr_ioctl.h"
#include "swap/swap.h"

// The record of the volume that the request names, held, or nothing. A name without a terminator ends at its
// 64th character. Takes gVolumeListLock.
[[nodiscard]] RecordHold FindRequestedVolume(const SWAP_CONFIG_REQUEST* request);

// Thread routines. `request` is a SWAP_CONFIG_REQUEST in pool, which the thread releases. Both leave through
// LeaveProvisioning (driver/record/threads.h).
void ConfigureSwapAllocThread(PVOID request);
void ConfigureSwapRemoveThread(PVOID request);
// Writes the swap files full, in blocks of kSectorsPerBlock sectors, until `size` bytes are written; `sectors`
// receives the sectors written. The status of the last create or write, STATUS_DISK_FULL when the last file is
// full; an end for want of pool or because of gProvisionQuit is none.
[[nodiscard]] NTSTATUS SwapStorageStartAllocation(PVOLUME_EXTENSION volume, ULONG* sectors,
                                                  const LONGLONG* size);
// Thread routine; `volume` is the record, whose RemoveLock the starter has acquired for the thread.
void StorageArmThread(PVOID volume);
// Creates the volume's StorageArmThread, which holds the record's RemoveLock (tag: the record) and lets it go;
// its handle is ArmThreadHandle's. The caller holds the record, and makes sure that one request at a time does
// this. STATUS_DELETE_PENDING when the record is being removed.
[[nodiscard]] NTSTATUS StartArmThread(PVOLUME_EXTENSION volume);
// Closes whatever storage file the volume holds open. Takes StorageMutex.
void CloseHeldFiles(PVOLUME_EXTENSION volume);
