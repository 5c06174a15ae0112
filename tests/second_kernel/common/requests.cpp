#include "tests/second_kernel/common/requests.h"
#include "tests/second_kernel/common/memory.h"
#include "tests/second_kernel/stage.h"

namespace {

NTSTATUS KeepRequest(PDEVICE_OBJECT, PIRP, PVOID ended) {
    KeSetEvent(static_cast<PKEVENT>(ended), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

PIRP NewRequest(PDEVICE_OBJECT device, UCHAR major, UCHAR minor, PFILE_OBJECT file) {
    const stage::OwnWork own;
    PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    if (!stage::Check(irp != nullptr, "a request of the story")) return nullptr;
    irp->Tail.Overlay.OriginalFileObject = file;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = major;
    next->MinorFunction = minor;
    next->FileObject = file;
    return irp;
}

// Sends and waits. What the dispatch routine returned must be what became of the request.
Reply CallAndWait(PDEVICE_OBJECT device, PIRP irp) {
    KEVENT ended;
    KeInitializeEvent(&ended, NotificationEvent, FALSE);
    IoSetCompletionRoutine(irp, KeepRequest, &ended, TRUE, TRUE, TRUE);
    const bool isPower = IoGetNextIrpStackLocation(irp)->MajorFunction == IRP_MJ_POWER;
    const NTSTATUS returned = isPower ? PoCallDriver(device, irp) : IoCallDriver(device, irp);
    (void)KeWaitForSingleObject(&ended, Executive, KernelMode, FALSE, nullptr);
    if (returned != STATUS_PENDING)
        stage::CheckStatus(returned, irp->IoStatus.Status, "the status returned is the request's");
    return {irp->IoStatus.Status, irp->IoStatus.Information};
}

void ReleaseRequest(PIRP irp) {
    if (PMDL mdl = irp->MdlAddress) {
        irp->MdlAddress = nullptr;
        const bool locked = (mdl->MdlFlags & MDL_PAGES_LOCKED) != 0;
        stage::Check(!locked, "the driver unlocked the pages that it locked");
        if (locked) MmUnlockPages(mdl);
        IoFreeMdl(mdl);
    }
    IoFreeIrp(irp);
}

Reply SendOne(PDEVICE_OBJECT device, PIRP irp) {
    const Reply reply = CallAndWait(device, irp);
    ReleaseRequest(irp);
    return reply;
}

constexpr Reply kNoRequest = {STATUS_INSUFFICIENT_RESOURCES, 0};

bool DescribeBuffer(PIRP irp, const Transfer& transfer) {
    if (transfer.Length == 0) return true;
    const stage::OwnWork own;
    PMDL mdl = IoAllocateMdl(transfer.Buffer, transfer.Length, FALSE, FALSE, irp);
    if (!stage::Check(mdl != nullptr, "a description of the story's buffer")) return false;
    if (!transfer.LeaveUnlocked) MmBuildMdlForNonPagedPool(mdl);
    return true;
}

// Input and output share one buffer, as long as the longer of them.
PUCHAR NewSystemBuffer(const Control& control) {
    const ULONG length =
        control.InputLength > control.OutputLength ? control.InputLength : control.OutputLength;
    if (length == 0) return nullptr;
    PUCHAR buffer = AllocateStory(length);
    if (buffer && control.InputLength != 0) RtlCopyMemory(buffer, control.Input, control.InputLength);
    return buffer;
}

}  // namespace

Reply SendTransfer(PDEVICE_OBJECT device, const Transfer& transfer) {
    PIRP irp = NewRequest(device, transfer.Major, 0, transfer.File);
    if (!irp) return kNoRequest;
    irp->Flags = IRP_NOCACHE;
    auto& place = IoGetNextIrpStackLocation(irp)->Parameters.Read;
    place.Length = transfer.Length;
    place.ByteOffset.QuadPart = transfer.Offset;
    Reply reply = kNoRequest;
    if (DescribeBuffer(irp, transfer)) reply = CallAndWait(device, irp);
    ReleaseRequest(irp);
    return reply;
}

NTSTATUS ReadAt(PDEVICE_OBJECT device, LONGLONG offset, PVOID buffer, ULONG length) {
    return SendTransfer(device, {IRP_MJ_READ, offset, buffer, length}).Status;
}

NTSTATUS WriteAt(PDEVICE_OBJECT device, LONGLONG offset, const void* buffer, ULONG length, PFILE_OBJECT file) {
    return SendTransfer(device, {IRP_MJ_WRITE, offset, const_cast<PVOID>(buffer), length, file}).Status;
}

Reply SendSimple(PDEVICE_OBJECT device, UCHAR major, PFILE_OBJECT file) {
    PIRP irp = NewRequest(device, major, 0, file);
    return irp ? SendOne(device, irp) : kNoRequest;
}

NTSTATUS SendPnp(PDEVICE_OBJECT device, UCHAR minor) {
    PIRP irp = NewRequest(device, IRP_MJ_PNP, minor, nullptr);
    if (!irp) return kNoRequest.Status;
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    ObReferenceObject(device);  // a removal may delete it
    const NTSTATUS status = SendOne(device, irp).Status;
    ObDereferenceObject(device);
    return status;
}

NTSTATUS SendPower(PDEVICE_OBJECT device) {
    PIRP irp = NewRequest(device, IRP_MJ_POWER, IRP_MN_SET_POWER, nullptr);
    if (!irp) return kNoRequest.Status;
    auto& power = IoGetNextIrpStackLocation(irp)->Parameters.Power;
    power.Type = DevicePowerState;
    power.State.DeviceState = PowerDeviceD3;
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    return SendOne(device, irp).Status;
}

Reply SendControl(PDEVICE_OBJECT device, const Control& control) {
    PIRP irp = NewRequest(device, IRP_MJ_DEVICE_CONTROL, 0, control.File);
    if (!irp) return kNoRequest;
    auto& parameters = IoGetNextIrpStackLocation(irp)->Parameters.DeviceIoControl;
    parameters.IoControlCode = control.Code;
    parameters.InputBufferLength = control.InputLength;
    parameters.OutputBufferLength = control.OutputLength;
    PUCHAR buffer = NewSystemBuffer(control);
    irp->AssociatedIrp.SystemBuffer = buffer;
    const Reply reply = SendOne(device, irp);
    stage::Check(reply.Information <= control.OutputLength, "no more is reported than the buffer holds",
                 reply.Information, control.OutputLength);
    if (NT_SUCCESS(reply.Status) && control.Output && reply.Information <= control.OutputLength && buffer)
        RtlCopyMemory(control.Output, buffer, reply.Information);
    FreeStory(buffer);
    return reply;
}

void InitializeFile(FILE_OBJECT* file, PDEVICE_OBJECT device, const WCHAR* name) {
    RtlZeroMemory(file, sizeof(FILE_OBJECT));
    file->DeviceObject = device;
    RtlInitUnicodeString(&file->FileName, name);
}
