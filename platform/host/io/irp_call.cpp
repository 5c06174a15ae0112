#include "platform/host/io/device.h"
#include "platform/host/sync/thread.h"
#include "platform/host/io/thread_io.h"
#include <new>
#include "platform/host/check/verifier.h"

// The way of a request down through IofCallDriver and up through IofCompleteRequest, with the checks of irp.h.
// Whether a dispatch routine told the truth is known only when the thread that it ran in also completed the
// request: the request's memory may be gone by the time the routine returns, so the completion leaves its mark
// in the thread's frames. What completes on another thread is judged by whoever owns the request (request.cpp).

using host::CallFrame;
using host::IrpState;
using host::Violation;

namespace {

class EnteredFrame : public CallFrame {
public:
    explicit EnteredFrame(PIRP irp) : io_(host::ThisThreadIo()) {
        previous = io_.frames;
        this->irp = irp;
        location = irp->CurrentLocation;
        io_.frames = this;
    }
    // Also when an exception passes.
    ~EnteredFrame() { io_.frames = previous; }
    EnteredFrame(const EnteredFrame&) = delete;
    EnteredFrame& operator=(const EnteredFrame&) = delete;

    void CheckReturned(PDEVICE_OBJECT device, UCHAR major, NTSTATUS returned) const {
        if (!completed) return;
        if (pending == (returned == STATUS_PENDING) && (pending || returned == status)) return;
        Violation(returned == STATUS_PENDING ? "STATUS_PENDING returned for a request not marked pending"
                  : pending                  ? "request marked pending, but STATUS_PENDING not returned"
                            : "dispatch routine returned another status than it completed with",
                  "device %p, major 0x%02x: returned 0x%08x, completed with 0x%08x", static_cast<void*>(device),
                  major, static_cast<ULONG>(returned), static_cast<ULONG>(status));
    }

private:
    host::ThreadIo& io_;
};

// Marks the frames of this thread whose dispatch routine was given the location that is being completed:
// several when filters skipped theirs. Frames further out wait for higher locations.
void MarkFrames(CallFrame* frame, const IRP* irp, UCHAR control) {
    for (; frame != nullptr; frame = frame->previous) {
        if (frame->irp != irp || frame->completed) continue;
        if (frame->location > irp->CurrentLocation) return;
        frame->completed = true;
        frame->pending = (control & SL_PENDING_RETURNED) != 0;
        frame->status = irp->IoStatus.Status;
    }
}

void CheckSendable(PDEVICE_OBJECT device, PIRP irp) {
    host::CheckDevice(device, "IofCallDriver");
    if (irp->Host == nullptr)
        Violation("not a request", "%p was not made by the kernel", static_cast<void*>(irp));
    const IrpState state = irp->Host->State.load(std::memory_order_relaxed);
    if (state == IrpState::Finished || state == IrpState::Freed)
        Violation("request sent after its end", "request %p to device %p", static_cast<void*>(irp),
                  static_cast<void*>(device));
    if (irp->CurrentLocation <= 1)
        Violation("no more stack locations", "request %p to device %p: all %d are used",
                  static_cast<void*>(irp), static_cast<void*>(device), irp->StackCount);
    if (irp->CurrentLocation > irp->StackCount + 1)
        Violation("stack location skipped twice", "request %p to device %p", static_cast<void*>(irp),
                  static_cast<void*>(device));
    const UCHAR major = IoGetNextIrpStackLocation(irp)->MajorFunction;
    if (major > IRP_MJ_MAXIMUM_FUNCTION)
        Violation("major function out of range", "request %p, major 0x%02x", static_cast<void*>(irp), major);
}

void CheckCompletable(PIRP irp) {
    const IrpState state =
        irp->Host != nullptr ? irp->Host->State.load(std::memory_order_relaxed) : IrpState::Freed;
    if (state == IrpState::Finished || state == IrpState::Freed)
        Violation("request completed twice", "request %p", static_cast<void*>(irp));
    if (state == IrpState::Owned || irp->CurrentLocation > irp->StackCount)
        Violation("request completed that no driver holds", "request %p", static_cast<void*>(irp));
    if (irp->IoStatus.Status == STATUS_PENDING)
        Violation("request completed with STATUS_PENDING", "request %p", static_cast<void*>(irp));
}

bool WantsRoutine(UCHAR control, const IRP* irp) {
    if (NT_SUCCESS(irp->IoStatus.Status) ? (control & SL_INVOKE_ON_SUCCESS) != 0
                                         : (control & SL_INVOKE_ON_ERROR) != 0)
        return true;
    return irp->Cancel != FALSE && (control & SL_INVOKE_ON_CANCEL) != 0;
}

// Passes the request's current stack location. False when a completion routine kept the request.
bool PassLocation(PIRP irp) {
    PIO_STACK_LOCATION done = IoGetCurrentIrpStackLocation(irp);
    const UCHAR control = done->Control;
    const PIO_COMPLETION_ROUTINE routine = done->CompletionRoutine;
    MarkFrames(host::ThisThreadIo().frames, irp, control);
    done->Control = 0;
    IoSkipCurrentIrpStackLocation(irp);
    irp->PendingReturned = (control & SL_PENDING_RETURNED) != 0;
    const bool top = irp->CurrentLocation > irp->StackCount;
    if (routine == nullptr || !WantsRoutine(control, irp)) {
        if (irp->PendingReturned && !top) IoMarkIrpPending(irp);
        return true;
    }
    if (top) irp->Host->State.store(IrpState::Owned, std::memory_order_relaxed);
    PDEVICE_OBJECT device = top ? nullptr : IoGetCurrentIrpStackLocation(irp)->DeviceObject;
    return routine(device, irp, done->Context) != STATUS_MORE_PROCESSING_REQUIRED;
}

// Nothing may leave a dispatch routine for want of memory: what it holds would stay held.
NTSTATUS Dispatch(PDRIVER_DISPATCH routine, PDEVICE_OBJECT device, PIRP irp) {
    try {
        return routine(device, irp);
    } catch (const std::bad_alloc&) {
        Violation("host memory", "none in a dispatch routine of device %p", static_cast<void*>(device));
    }
}

}  // namespace

NTSTATUS IofCallDriver(PDEVICE_OBJECT device, PIRP irp) {
    CheckSendable(device, irp);
    --irp->CurrentLocation;
    PIO_STACK_LOCATION location = --irp->Tail.Overlay.CurrentStackLocation;
    location->DeviceObject = device;
    irp->Host->State.store(IrpState::Sent, std::memory_order_relaxed);
    const UCHAR major = location->MajorFunction;
    const KTHREAD* thread = KeGetCurrentThread();
    const host::LockState before{thread->Irql, thread->HeldCount};
    EnteredFrame frame(irp);
    const NTSTATUS status = Dispatch(device->DriverObject->MajorFunction[major], device, irp);
    frame.CheckReturned(device, major, status);
    if (thread->Irql != before.irql || thread->HeldCount != before.held)
        host::CheckLockState(before, "a dispatch routine");
    return status;
}

void IofCompleteRequest(PIRP irp, CCHAR) {
    CheckCompletable(irp);
    do {
        if (!PassLocation(irp)) return;
    } while (irp->CurrentLocation <= irp->StackCount);
    HostIrp* own = irp->Host;
    if (own->Finish == nullptr)
        Violation("request completed past its owner",
                  "request %p: the completion routine of its owner must keep it", static_cast<void*>(irp));
    own->State.store(IrpState::Finished, std::memory_order_relaxed);
    own->Finish(irp, own->FinishContext);
}

void PoStartNextPowerIrp(PIRP irp) {
    if (IoGetCurrentIrpStackLocation(irp)->MajorFunction != IRP_MJ_POWER)
        Violation("PoStartNextPowerIrp", "request %p is no power request", static_cast<void*>(irp));
}

NTSTATUS PoCallDriver(PDEVICE_OBJECT device, PIRP irp) {
    if (IoGetNextIrpStackLocation(irp)->MajorFunction != IRP_MJ_POWER)
        Violation("PoCallDriver", "request %p is no power request", static_cast<void*>(irp));
    return IofCallDriver(device, irp);
}
