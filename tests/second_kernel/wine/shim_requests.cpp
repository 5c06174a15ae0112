// Requests. Those that drivers have the kernel build are built here, as Wine copies no system buffers and locks
// no pages; their way down and up is checked, and a request stays recognisable for a while after its end.
#include <atomic>
#include "call_frames.h"
#include "faults.h"
#include "irql.h"
#include "shim.h"

namespace shim {
namespace {

decltype(&IoAllocateIrp) gKernelAllocate;
decltype(&IoFreeIrp) gKernelFree;
decltype(&IofCallDriver) gKernelCall;
decltype(&IofCompleteRequest) gKernelComplete;

constexpr ULONG kBufferTag = 0x46554253;  // SBUF, in memory order
constexpr UCHAR kUnusedFill = 0xA5;

// What Tail.Overlay.AuxiliaryBuffer of a request that was built here points to: no driver touches that field.
char gBuiltHere;

bool IsBuiltHere(PIRP request) {
    return request->Tail.Overlay.AuxiliaryBuffer == &gBuiltHere;
}

// ---- the end of a request ----

// The requests that ended last. Their memory is given back later, so that one who still uses such a request
// finds it marked as gone.
constexpr ULONG kKept = 256;
KSPIN_LOCK gLock;
PIRP gEnded[kKept];
ULONG gNextEnded;

std::atomic<LONG> gOutstanding{0};

PIRP NTAPI AllocateRequest(CCHAR stackSize, BOOLEAN quota) {
    if (ShallFail(stage::Fault::BuildRequest, SHIM_CALLER)) return nullptr;
    PIRP request = gKernelAllocate(stackSize, quota);
    if (request) ++gOutstanding;
    return request;
}

void NTAPI FreeRequest(PIRP request) {
    if (request->Type != IO_TYPE_IRP) return BrokenRule("request freed twice", SHIM_CALLER);
    request->Type = 0;
    --gOutstanding;
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&gLock);
    PIRP oldest = gEnded[gNextEnded];
    gEnded[gNextEnded] = request;
    gNextEnded = (gNextEnded + 1) % kKept;
    KeReleaseSpinLock(&gLock, irql);
    if (!oldest) return;
    oldest->Type = IO_TYPE_IRP;
    gKernelFree(oldest);
}

bool IsError(NTSTATUS status) {
    return static_cast<ULONG>(status) >> 30 == 3;
}

// The system buffer's bytes reach the caller's buffer, as far as the request says there are any.
void CopyOut(PIRP request) {
    if ((request->Flags & IRP_INPUT_OPERATION) && !IsError(request->IoStatus.Status))
        RtlCopyMemory(request->UserBuffer, request->AssociatedIrp.SystemBuffer, request->IoStatus.Information);
    if (request->Flags & IRP_DEALLOCATE_BUFFER)
        ExFreePoolWithTag(request->AssociatedIrp.SystemBuffer, kBufferTag);
}

void ReleaseMdls(PIRP request) {
    while (PMDL mdl = request->MdlAddress) {
        request->MdlAddress = mdl->Next;
        if (mdl->MdlFlags & MDL_PAGES_LOCKED) MmUnlockPages(mdl);
        IoFreeMdl(mdl);
    }
}

// An error that a request ends with at once is reported through IofCallDriver's result alone: a caller that
// reads its status block nevertheless finds what it put there.
void FinishBuilt(PIRP request) {
    CopyOut(request);
    ReleaseMdls(request);
    const bool report = !IsError(request->IoStatus.Status) || request->PendingReturned;
    PKEVENT event = report ? request->UserEvent : nullptr;
    if (report && request->UserIosb) *request->UserIosb = request->IoStatus;
    FreeRequest(request);
    if (event) (void)KeSetEvent(event, IO_NO_INCREMENT, FALSE);
}

// ---- building ----

PIRP NewRequest(PDEVICE_OBJECT device) {
    PIRP request = IoAllocateIrp(device->StackSize, FALSE);
    if (!request) return nullptr;
    request->Tail.Overlay.AuxiliaryBuffer = &gBuiltHere;
    request->Tail.Overlay.Thread = reinterpret_cast<PETHREAD>(KvrCurrentThread());
    return request;
}

// False without memory.
bool DescribeLocked(PIRP request, PVOID buffer, ULONG length) {
    if (length == 0) return true;
    PMDL mdl = IoAllocateMdl(buffer, length, FALSE, FALSE, request);
    if (!mdl) return false;
    MmProbeAndLockPages(mdl, KernelMode, IoModifyAccess);
    return true;
}

PIRP NTAPI BuildTransfer(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length, PLARGE_INTEGER offset,
                         PIO_STATUS_BLOCK iosb) {
    RequireIrql(APC_LEVEL, "request built at too high an IRQL", SHIM_CALLER);
    if (ShallFail(stage::Fault::BuildRequest, SHIM_CALLER)) return nullptr;
    PIRP request = NewRequest(device);
    if (!request) return nullptr;
    request->UserIosb = iosb;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(request);
    next->MajorFunction = static_cast<UCHAR>(major);
    if (major != IRP_MJ_READ && major != IRP_MJ_WRITE) return request;
    next->Parameters.Read.Length = length;
    next->Parameters.Read.ByteOffset = *offset;
    if (!(device->Flags & DO_DIRECT_IO)) {
        request->UserBuffer = buffer;
    } else if (!DescribeLocked(request, buffer, length)) {
        FreeRequest(request);
        return nullptr;
    }
    return request;
}

struct ControlBuffers {
    PVOID input;
    ULONG inputLength;
    PVOID output;
    ULONG outputLength;
};

// False without memory. The bytes behind the input are no one's data; the fill makes them visible where they
// leak.
bool GiveSystemBuffer(PIRP request, const ControlBuffers& buffers) {
    const ULONG length =
        buffers.inputLength > buffers.outputLength ? buffers.inputLength : buffers.outputLength;
    if (length == 0) return true;
    PVOID system = ExAllocatePoolWithTag(NonPagedPool, length, kBufferTag);
    if (!system) return false;
    RtlFillMemory(system, length, kUnusedFill);
    if (buffers.inputLength != 0) RtlCopyMemory(system, buffers.input, buffers.inputLength);
    request->AssociatedIrp.SystemBuffer = system;
    request->UserBuffer = buffers.output;
    request->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER | (buffers.output ? IRP_INPUT_OPERATION : 0);
    return true;
}

bool GiveBuffers(PIRP request, ULONG code, const ControlBuffers& buffers) {
    switch (METHOD_FROM_CTL_CODE(code)) {
        case METHOD_BUFFERED:
            return GiveSystemBuffer(request, buffers);
        case METHOD_NEITHER:
            IoGetNextIrpStackLocation(request)->Parameters.DeviceIoControl.Type3InputBuffer = buffers.input;
            request->UserBuffer = buffers.output;
            return true;
        default:  // direct: the input is buffered, the other buffer is described by an MDL
            return GiveSystemBuffer(request, {buffers.input, buffers.inputLength, nullptr, 0}) &&
                   DescribeLocked(request, buffers.output, buffers.outputLength);
    }
}

PIRP NTAPI BuildControl(ULONG code, PDEVICE_OBJECT device, PVOID input, ULONG inputLength, PVOID output,
                        ULONG outputLength, BOOLEAN internal, PKEVENT event, PIO_STATUS_BLOCK iosb) {
    RequireIrql(PASSIVE_LEVEL, "control request built at too high an IRQL", SHIM_CALLER);
    if (ShallFail(stage::Fault::BuildRequest, SHIM_CALLER)) return nullptr;
    PIRP request = NewRequest(device);
    if (!request) return nullptr;
    request->UserEvent = event;
    request->UserIosb = iosb;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(request);
    next->MajorFunction = internal ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
    next->Parameters.DeviceIoControl.IoControlCode = code;
    next->Parameters.DeviceIoControl.InputBufferLength = inputLength;
    next->Parameters.DeviceIoControl.OutputBufferLength = outputLength;
    if (GiveBuffers(request, code, {input, inputLength, output, outputLength})) return request;
    request->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
    request->UserEvent = nullptr;
    FinishBuilt(request);
    return nullptr;
}

// ---- down and up ----

bool IsSendable(PIRP request, const void* caller) {
    RequireIrql(DISPATCH_LEVEL, "request sent at too high an IRQL", caller);
    const char* rule = request->Type != IO_TYPE_IRP                         ? "request sent after its end"
                       : request->CurrentLocation <= 1                      ? "no more stack locations"
                       : request->CurrentLocation > request->StackCount + 1 ? "stack location skipped twice"
                                                                            : nullptr;
    if (rule) BrokenRule(rule, caller);
    return !rule;
}

NTSTATUS FASTCALL Call(PDEVICE_OBJECT device, PIRP request) {
    if (!IsSendable(request, SHIM_CALLER)) return STATUS_INVALID_DEVICE_STATE;
    const PDRIVER_DISPATCH routine =
        device->DriverObject->MajorFunction[IoGetNextIrpStackLocation(request)->MajorFunction];
    const KIRQL before = Irql();
    NTSTATUS status = STATUS_SUCCESS;
    CallFrame frame;
    EnterFrame(&frame, request);
    TryFinally([&] { status = gKernelCall(device, request); }, [&] { LeaveFrame(&frame); });
    if (Irql() != before) BrokenRule("a dispatch routine changed the IRQL", reinterpret_cast<PVOID>(routine));
    if (const char* rule = BrokenByReturn(frame, status)) BrokenRule(rule, reinterpret_cast<PVOID>(routine));
    return status;
}

bool WantsRoutine(UCHAR control, PIRP request) {
    if (request->Cancel && (control & SL_INVOKE_ON_CANCEL)) return true;
    return control & (NT_SUCCESS(request->IoStatus.Status) ? SL_INVOKE_ON_SUCCESS : SL_INVOKE_ON_ERROR);
}

// Passes the request's current stack location. False when a completion routine kept the request.
bool PassLocation(PIRP request) {
    PIO_STACK_LOCATION done = IoGetCurrentIrpStackLocation(request);
    const UCHAR control = done->Control;
    const PIO_COMPLETION_ROUTINE routine = done->CompletionRoutine;
    PVOID context = done->Context;
    MarkFrames(request, control);
    done->Control = 0;
    IoSkipCurrentIrpStackLocation(request);
    request->PendingReturned = (control & SL_PENDING_RETURNED) != 0;
    const bool top = request->CurrentLocation > request->StackCount;
    if (!routine || !WantsRoutine(control, request)) {
        if (request->PendingReturned && !top) IoMarkIrpPending(request);
        return true;
    }
    PDEVICE_OBJECT device = top ? nullptr : IoGetCurrentIrpStackLocation(request)->DeviceObject;
    return routine(device, request, context) != STATUS_MORE_PROCESSING_REQUIRED;
}

void FASTCALL Complete(PIRP request, CCHAR) {
    RequireIrql(DISPATCH_LEVEL, "request completed at too high an IRQL", SHIM_CALLER);
    if (request->Type != IO_TYPE_IRP) return BrokenRule("request completed twice", SHIM_CALLER);
    if (request->CurrentLocation > request->StackCount)
        return BrokenRule("request completed that no driver holds", SHIM_CALLER);
    if (request->IoStatus.Status == STATUS_PENDING)
        BrokenRule("request completed with STATUS_PENDING", SHIM_CALLER);
    do {
        if (!PassLocation(request)) return;
    } while (request->CurrentLocation <= request->StackCount);
    if (!IsBuiltHere(request)) return BrokenRule("request completed past its owner", SHIM_CALLER);
    FinishBuilt(request);
}

const Replacement kReplacements[] = {
    {"IoAllocateIrp", reinterpret_cast<PVOID>(AllocateRequest), reinterpret_cast<PVOID*>(&gKernelAllocate)},
    {"IoFreeIrp", reinterpret_cast<PVOID>(FreeRequest), reinterpret_cast<PVOID*>(&gKernelFree)},
    {"IoBuildAsynchronousFsdRequest", reinterpret_cast<PVOID>(BuildTransfer), nullptr},
    {"IoBuildDeviceIoControlRequest", reinterpret_cast<PVOID>(BuildControl), nullptr},
    {"IofCallDriver", reinterpret_cast<PVOID>(Call), reinterpret_cast<PVOID*>(&gKernelCall)},
    {"PoCallDriver", reinterpret_cast<PVOID>(Call), nullptr},
    {"IofCompleteRequest", reinterpret_cast<PVOID>(Complete), reinterpret_cast<PVOID*>(&gKernelComplete)},
};

}  // namespace

Replacements RequestReplacements() {
    return {kReplacements, RTL_NUMBER_OF(kReplacements)};
}

LONG OutstandingRequests() {
    return gOutstanding;
}

void CompleteUserRequest(PIRP request) {
    gKernelComplete(request, IO_NO_INCREMENT);
}

}  // namespace shim
