// Starting and stopping the system threads. One provisioning thread at a time: it is published in
// gProvisionThread, with a reference that keeps its object alive, before it can run a step, and clears itself
// as its last act. IRQL: PASSIVE_LEVEL.
#pragma once
#include "control/kvr_ioctl.h"
#include "driver/volume_extension.h"

extern std::atomic<PKTHREAD> gProvisionThread;  // changed under gProvisionMutex
extern std::atomic<BOOLEAN> gProvisionQuit;     // asks the thread to stop before its next block
extern KMUTEX gProvisionMutex;

[[nodiscard]] NTSTATUS StartSwapAllocation(PVOID input, ULONG length);
[[nodiscard]] NTSTATUS RunSwapRemoval(PVOID input, ULONG length);
[[nodiscard]] NTSTATUS StopSwapThread();
[[nodiscard]] BOOLEAN IsConfigVolumeProtected();
// Creates the volume's StorageArmThread. The caller makes sure that one request at a time does.
[[nodiscard]] NTSTATUS StartArmThread(PVOLUME_EXTENSION volume);

// For the provisioning threads: their first and last acts.
void EnterProvisioning();
void LeaveProvisioning(NTSTATUS status);
