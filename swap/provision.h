// Making, holding and removing the storage files. System threads; IRQL: PASSIVE_LEVEL.
#pragma once
#include "formats/kvr_ioctl.h"
#include "swap/swap.h"

// The record of the volume that the request names, with its RemoveLock acquired for the caller (tag: the
// record); null when there is none. A name without a terminator ends at its 64th character.
[[nodiscard]] PVOLUME_EXTENSION ReferenceRequestedVolume(const SWAP_CONFIG_REQUEST* request);

// Thread routines. `request` is a SWAP_CONFIG_REQUEST in pool, which the thread releases. Both leave through
// LeaveProvisioning (control/provision_control.h).
void ConfigureSwapAllocThread(PVOID request);
void ConfigureSwapRemoveThread(PVOID request);
// Writes the swap files full until `size` bytes are written; `sectors` receives the sectors written.
[[nodiscard]] NTSTATUS SwapStorageStartAllocation(PVOLUME_EXTENSION volume, ULONG* sectors,
                                                  const LONGLONG* size);
// Thread routine; `volume` is the record, whose RemoveLock the starter has acquired for the thread.
void StorageArmThread(PVOID volume);
// Closes whatever storage file the volume holds open. Takes StorageMutex.
void CloseHeldFiles(PVOLUME_EXTENSION volume);
