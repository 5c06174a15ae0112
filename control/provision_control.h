// Starting and stopping provisioning, at the tool's request. IRQL: PASSIVE_LEVEL.
#pragma once
#include "platform/kernel.h"

// Each takes gProvisionMutex. `input` is a SWAP_CONFIG_REQUEST, of which removal reads the name only; what lies
// behind it is not looked at. STATUS_FILE_LOCK_CONFLICT while a provisioning thread runs;
// STATUS_INVALID_PARAMETER for an input that is missing or too short, and while the volume that it names, or
// the one that holds the configuration, is protected.
[[nodiscard]] NTSTATUS StartSwapAllocation(PVOID input, ULONG length);  // returns while the thread runs
[[nodiscard]] NTSTATUS RunSwapRemoval(PVOID input, ULONG length);       // returns when the thread has ended
// Asks the thread to stop and waits for its end. Success when none runs.
[[nodiscard]] NTSTATUS StopSwapThread();
// Takes gVolumeListLock.
[[nodiscard]] BOOLEAN IsConfigVolumeProtected();
