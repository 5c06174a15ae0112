// Flush, power and shutdown of filter devices: dispatch routines. Each passes a request for the control device
// to KvrDefaultDispatch.
#pragma once
#include "platform/kernel.h"

// Passes the flush down and then writes out the cache of a volume that redirects. IRQL: PASSIVE_LEVEL.
NTSTATUS KvrFlush(PDEVICE_OBJECT device, PIRP request);
// Passes the request down. IRQL: at most DISPATCH_LEVEL.
NTSTATUS KvrPower(PDEVICE_OBJECT device, PIRP request);
// Saves the volume's state, flushes the device below it and, the first time, has a protected volume notified
// again at the last chance; takes a disk's filter down. Completes the request, always with STATUS_SUCCESS and
// without passing it on. IRQL: PASSIVE_LEVEL, with no lock held; at the last chance nothing pageable is
// touched.
NTSTATUS KvrShutdown(PDEVICE_OBJECT device, PIRP request);
