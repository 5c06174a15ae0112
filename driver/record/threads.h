// The driver's system threads, and the state of provisioning. One provisioning thread runs at a time: it is
// published in gProvisionThread, with a reference that keeps its object alive, before it can run a step, and
// retracts itself as its last act. IRQL: PASSIVE_LEVEL.
#pragma once
#include <atomic>
#include "platform/owners.h"

extern std::atomic<PKTHREAD> gProvisionThread;  // referenced; changed under gProvisionMutex
extern std::atomic<BOOLEAN> gProvisionQuit;     // asks the thread to stop before its next block
extern KMUTEX gProvisionMutex;

// A thread of the system process. Its handle is the kernel's own: the requester is some process, a user's tool
// or whoever read a volume first, which must not reach it, and it may be closed from another one.
[[nodiscard]] NTSTATUS CreateDriverThread(PKSTART_ROUTINE routine, PVOID context, KernelHandle* handle);

// For the provisioning threads: their first and last acts. Both take gProvisionMutex; LeaveProvisioning ends
// the calling thread with the status and does not return.
void EnterProvisioning();
void LeaveProvisioning(NTSTATUS status);
// Retracts the thread, with its reference, if it still is the one published. Takes gProvisionMutex.
void RetractProvisionThread(PKTHREAD thread);
