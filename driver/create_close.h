// Opening and closing: dispatch routines. The control device admits one handle at a time. IRQL: PASSIVE_LEVEL.
#pragma once
#include "platform/kernel.h"

extern KSPIN_LOCK gControlLock;
extern BOOLEAN gControlOpen;  // under gControlLock

// A filter answers itself, with STATUS_SUCCESS; the control device with STATUS_ACCESS_DENIED to a program
// without an administrator's rights, and with STATUS_DEVICE_ALREADY_ATTACHED while it is open.
NTSTATUS KvrCreate(PDEVICE_OBJECT device, PIRP request);
// A filter passes it down.
NTSTATUS KvrClose(PDEVICE_OBJECT device, PIRP request);
