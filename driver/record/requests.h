// The helpers with which every dispatch routine handles requests.
#pragma once
#include "driver/record/volume_extension.h"

extern PDEVICE_OBJECT gControlDevice;  // set by DriverEntry before any request can come, then fixed

// Ends a request here: status and information are set, it completes without a boost, and the status is
// returned. The request is not the caller's any more. IRQL: at most DISPATCH_LEVEL.
NTSTATUS CompleteRequest(PIRP request, NTSTATUS status, ULONG_PTR information = 0);
// Ends a request that came back from Target as Target left it; returns `status`, which that call gave.
// IRQL: at most DISPATCH_LEVEL.
NTSTATUS CompleteForwarded(PIRP request, NTSTATUS status);
// Hands the request to Target and returns what Target returned; nothing of it may be touched afterwards. Any
// IRQL that Target takes it at.
NTSTATUS PassIrpDown(PDEVICE_OBJECT device, PIRP request);
// The same while the record is held, for who does not hold it: STATUS_DELETE_PENDING, and the request is ended,
// when the record is being taken down. IRQL: at most DISPATCH_LEVEL.
NTSTATUS HoldAndPassDown(PDEVICE_OBJECT device, PIRP request);
// Sends the request to Target and waits, with the final status as the result; it then belongs to the caller
// again, who must complete it. IRQL: PASSIVE_LEVEL.
[[nodiscard]] NTSTATUS ForwardIrpSynchronously(PDEVICE_OBJECT device, PIRP request);
// Asks Target with a control code without input. STATUS_SUCCESS only when all `bytes` of the answer came.
// IRQL: PASSIVE_LEVEL.
[[nodiscard]] NTSTATUS QueryTarget(PVOLUME_EXTENSION volume, ULONG code, PVOID answer, ULONG bytes);
// The completion routine of such a request; `event` is a KEVENT. IRQL: at most DISPATCH_LEVEL.
NTSTATUS SyncCompletion(PDEVICE_OBJECT device, PIRP request, PVOID event);
// The final status of a lower request: what its call returned, or, when that is STATUS_PENDING, what `block`
// says once `done` is set. IRQL: below DISPATCH_LEVEL.
[[nodiscard]] NTSTATUS AwaitRequest(NTSTATUS returned, PKEVENT done, const IO_STATUS_BLOCK* block);
// What becomes of requests that no routine of their own handles: a filter passes them on, the control device
// completes them, a cleanup with STATUS_SUCCESS, any other with STATUS_INVALID_DEVICE_REQUEST.
NTSTATUS KvrDefaultDispatch(PDEVICE_OBJECT device, PIRP request);

// The file object that a request is made for, in the order of preference of the read and write paths: the
// request's own, its stack location's, its master request's. Null when it is made for none; not referenced.
[[nodiscard]] PFILE_OBJECT FindRequestFile(PIRP request);

// What a message shows of an address: its low 32 bits.
inline ULONG TraceAddress(const void* address) {
    return static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(address));
}
