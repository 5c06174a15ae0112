// Starting and stopping the system threads. One provisioning thread at a time: it is published in
// gProvisionThread, with a reference that keeps its object alive, before it can run a step, and clears itself
// as its last act. IRQL: PASSIVE_LEVEL.
#pragma once
#include "formats/kvr_ioctl.h"
#include "driver/volume_extension.h"

extern std::atomic<PKTHREAD> gProvisionThread;  // referenced; changed under gProvisionMutex
extern std::atomic<BOOLEAN> gProvisionQuit;     // asks the thread to stop before its next block
extern KMUTEX gProvisionMutex;

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
// Creates the volume's StorageArmThread, which holds the record's RemoveLock (tag: the record) and lets it go.
// The caller makes sure that one request at a time does.
[[nodiscard]] NTSTATUS StartArmThread(PVOLUME_EXTENSION volume);

// For the provisioning threads: their first and last acts. Both take gProvisionMutex; LeaveProvisioning ends
// the calling thread with the status and does not return.
void EnterProvisioning();
void LeaveProvisioning(NTSTATUS status);
