// Making, holding and removing the storage files. System threads; IRQL: PASSIVE_LEVEL.
#pragma once
#include "control/kvr_ioctl.h"
#include "swap/swap.h"

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
