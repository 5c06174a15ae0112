#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>
#include "platform/host/io/device.h"
#include "platform/host/check/injector.h"
#include "platform/host/io/irp.h"
#include "platform/host/memory/mdl.h"
#include "platform/host/nt/ntddctl.h"
#include "platform/host/check/host_memory.h"
#include "platform/host/check/verifier.h"

// Requests that drivers have the kernel build. When one passes its last stack location the kernel reports its
// result and releases everything; a completion routine that keeps it takes over that duty.

namespace host {
namespace {

constexpr bool IsError(NTSTATUS status) {
    return (static_cast<ULONG>(status) >> 30) == 3;
}

// The platform reports an error that a request ends with at once only through IofCallDriver's result: a caller
// that reads its status block nevertheless finds what it put there.
void FinishBuilt(PIRP irp, PVOID) {
    CopyBuffered(irp);
    ReleaseMdls(irp);
    const bool report = !IsError(irp->IoStatus.Status) || irp->PendingReturned;
    PKEVENT event = report ? irp->UserEvent : nullptr;
    if (report && irp->UserIosb != nullptr) *irp->UserIosb = irp->IoStatus;
    ReleaseIrp(irp);
    if (event != nullptr) KeSetEvent(event, IO_NO_INCREMENT, FALSE);
}

constexpr ULONG MethodOf(ULONG code) {
    return code & 3;
}

// Bytes behind the input are no one's data; a pattern makes them visible where they leak.
void GiveSystemBuffer(PIRP irp, const void* input, ULONG inputLength, PVOID output, ULONG outputLength) {
    const ULONG length = std::max(inputLength, outputLength);
    if (length == 0) return;
    PVOID buffer = std::malloc(length);
    if (buffer == nullptr) throw std::bad_alloc();
    std::memset(buffer, 0xA5, length);
    if (inputLength != 0) RtlCopyMemory(buffer, input, inputLength);
    irp->AssociatedIrp.SystemBuffer = buffer;
    irp->Flags |= IRP_BUFFERED_IO | (output != nullptr ? IRP_INPUT_OPERATION : 0);
    irp->UserBuffer = output;
    irp->Host->OwnedSystemBuffer = buffer;
    irp->Host->OutputLength = output != nullptr ? outputLength : 0;
}

// A request under way to whoever asked for it; one that is not finished is taken back.
class Unfinished {
public:
    explicit Unfinished(PIRP irp) : irp_(irp) {}
    ~Unfinished() {
        if (irp_ == nullptr) return;
        ReleaseMdls(irp_);
        ReleaseIrp(irp_);
    }
    Unfinished(const Unfinished&) = delete;
    Unfinished& operator=(const Unfinished&) = delete;
    PIRP Done() { return std::exchange(irp_, nullptr); }

private:
    PIRP irp_;
};

void DescribeBuffer(PIRP irp, PDEVICE_OBJECT device, PVOID buffer, ULONG length) {
    if ((device->Flags & DO_DIRECT_IO) == 0 || length == 0) {
        irp->UserBuffer = buffer;
        return;
    }
    irp->MdlAddress = NewMdl(buffer, length);
    LockMdl(irp->MdlAddress);
}

PIRP BuildFsd(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length, PLARGE_INTEGER offset,
              PIO_STATUS_BLOCK iosb) {
    PIRP irp = NewIrp(device->StackSize, FinishBuilt, nullptr);
    Unfinished made(irp);
    irp->Tail.Overlay.Thread = KeGetCurrentThread();
    irp->UserIosb = iosb;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = static_cast<UCHAR>(major);
    if (major != IRP_MJ_READ && major != IRP_MJ_WRITE) return made.Done();
    next->Parameters.Read.Length = length;
    next->Parameters.Read.ByteOffset = *offset;
    DescribeBuffer(irp, device, buffer, length);
    return made.Done();
}

}  // namespace

void CopyBuffered(PIRP irp) {
    HostIrp* own = irp->Host;
    if (own->OwnedSystemBuffer == nullptr || own->OutputLength == 0 || IsError(irp->IoStatus.Status)) return;
    if (irp->IoStatus.Information > own->OutputLength)
        Violation("more bytes reported than the buffer has", "request %p: %zu of %u", static_cast<void*>(irp),
                  static_cast<SIZE_T>(irp->IoStatus.Information), own->OutputLength);
    RtlCopyMemory(irp->UserBuffer, own->OwnedSystemBuffer, irp->IoStatus.Information);
}

PIRP BuildControl(ULONG code, PDEVICE_OBJECT device, const void* input, ULONG inputLength, PVOID output,
                  ULONG outputLength, UCHAR major) {
    CheckDevice(device, "IoBuildDeviceIoControlRequest");
    constexpr ULONG kNeither = 3;
    PIRP irp = NewIrp(device->StackSize, FinishBuilt, nullptr);
    Unfinished made(irp);
    irp->Tail.Overlay.Thread = KeGetCurrentThread();
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = major;
    next->Parameters.DeviceIoControl.IoControlCode = code;
    next->Parameters.DeviceIoControl.InputBufferLength = inputLength;
    next->Parameters.DeviceIoControl.OutputBufferLength = outputLength;
    if (MethodOf(code) == METHOD_BUFFERED) {
        GiveSystemBuffer(irp, input, inputLength, output, outputLength);
    } else if (MethodOf(code) == kNeither) {
        next->Parameters.DeviceIoControl.Type3InputBuffer = const_cast<PVOID>(input);
        irp->UserBuffer = output;
    } else {  // direct: the input is buffered, the other buffer is described by an MDL
        GiveSystemBuffer(irp, input, inputLength, nullptr, 0);
        if (outputLength != 0) {
            irp->MdlAddress = NewMdl(output, outputLength);
            LockMdl(irp->MdlAddress);
        }
    }
    return made.Done();
}

}  // namespace host

PIRP IoBuildAsynchronousFsdRequest(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length,
                                   PLARGE_INTEGER offset, PIO_STATUS_BLOCK iosb) {
    host::RequireIrql("IoBuildAsynchronousFsdRequest", APC_LEVEL);
    host::CheckDevice(device, "IoBuildAsynchronousFsdRequest");
    if (host::InjectFault(host::Fault::BuildRequest)) return nullptr;
    return host::WithinMemory(PIRP{},
                              [&] { return host::BuildFsd(major, device, buffer, length, offset, iosb); });
}

PIRP IoBuildDeviceIoControlRequest(ULONG code, PDEVICE_OBJECT device, PVOID input, ULONG inputLength,
                                   PVOID output, ULONG outputLength, BOOLEAN internal, PKEVENT event,
                                   PIO_STATUS_BLOCK iosb) {
    host::RequirePageable("IoBuildDeviceIoControlRequest", PASSIVE_LEVEL);
    if (host::InjectFault(host::Fault::BuildRequest)) return nullptr;
    PIRP irp = host::WithinMemory(PIRP{}, [&] {
        return host::BuildControl(code, device, input, inputLength, output, outputLength,
                                  internal ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL);
    });
    if (irp == nullptr) return nullptr;
    irp->UserEvent = event;
    irp->UserIosb = iosb;
    return irp;
}
