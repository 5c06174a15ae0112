// The host kernel's own part of a request. Requests come from caches of the calling thread, so the request path
// takes no lock that threads share; the caches count what is outstanding per thread and the report adds it up.
//
// Rules that stop the machine with a violation:
// - a request is completed once, by a driver that holds it, and not with STATUS_PENDING;
// - it is not sent on when its stack locations are used up, nor once it was completed or freed;
// - a dispatch routine returns STATUS_PENDING exactly when the request was marked pending, and otherwise the
//   status that it completed the request with;
// - a dispatch routine returns at the IRQL, and holding as many locks, as it was called.
#pragma once
#include "platform/host/nt/ntio.h"

namespace host {

// Owned: allocated or given back by a completion routine, its owner may send it. Sent: a driver holds it.
// Finished: completed, nobody below may touch it. Freed: back in a cache.
enum class IrpState : UCHAR { Owned, Sent, Finished, Freed };

struct Outcome;  // request.h

// Called once a request's completion has passed every stack location. It owns the request from then on.
using IrpFinish = void (*)(PIRP irp, PVOID context);

}  // namespace host

struct HostIrp {
    std::atomic<host::IrpState> State;
    CCHAR Capacity;          // stack locations that fit behind the request
    host::IrpFinish Finish;  // null: the request must be stopped by a completion routine
    PVOID FinishContext;
    HostIrp* NextFree;
    void (*Done)(void* context, host::Outcome outcome);  // asynchronous requests of request.h
    bool From32Bit;                                      // the program that sent it is a 32-bit one
    UCHAR LockedAtStart;      // requests of request.h: bit 0 its own pages, bit 1 its master's
    ULONG OutputLength;       // buffered device control: bytes of UserBuffer
    PVOID OwnedSystemBuffer;  // buffered device control: freed with the request
};

namespace host {

// A request with every field zero, `finish` to be called at its end. Throws std::bad_alloc.
PIRP NewIrp(CCHAR stackSize, IrpFinish finish, PVOID context);
// Gives the request back; its MDLs must be gone. IoFreeIrp is the same for drivers.
void ReleaseIrp(PIRP irp);
// Frees the MDLs of the request, unlocking those whose pages are locked.
void ReleaseMdls(PIRP irp);

// A device-control request as IoBuildDeviceIoControlRequest makes it, without injected failures, event or
// status block. Throws std::bad_alloc.
PIRP BuildControl(ULONG code, PDEVICE_OBJECT device, const void* input, ULONG inputLength, PVOID output,
                  ULONG outputLength, UCHAR major);
// Copies the system buffer of a completed request of that kind to the caller's, unless it ended in an error.
// More bytes than fit are a violation.
void CopyBuffered(PIRP irp);

// Requests, MDLs and locked MDLs that are outstanding in all threads. Exact while no other thread runs
// requests.
struct Outstanding {
    long irps;
    long mdls;
    long lockedMdls;
};
Outstanding CountOutstanding();

}  // namespace host
