#include "platform/host/io/request.h"
#include "platform/host/io/device.h"
#include "platform/host/memory/mdl.h"
#include "platform/host/check/host_memory.h"
#include "platform/host/check/verifier.h"
#include "platform/host/sync/wait_work.h"

namespace host {
namespace {

constexpr UCHAR kOwnLocked = 1, kMasterLocked = 2;

PMDL DescribePages(const Request& request, Pages pages) {
    if (pages == Pages::None || request.length == 0) return nullptr;
    PMDL mdl = NewMdl(request.buffer, request.length);
    if (pages == Pages::Locked) LockMdl(mdl);
    if (pages == Pages::Bad) MarkMdlBad(mdl);
    if (pages == Pages::NonPaged) MmBuildMdlForNonPagedPool(mdl);
    if (pages == Pages::Partial) mdl->MdlFlags |= MDL_PARTIAL;
    return mdl;
}

void AddMaster(PIRP irp, const Request& request) {
    PIRP master = NewIrp(1, nullptr, nullptr);
    irp->AssociatedIrp.MasterIrp = master;
    irp->Flags |= IRP_ASSOCIATED_IRP;
    master->Flags = request.flags;
    master->Tail.Overlay.OriginalFileObject = request.masterFile;
    master->MdlAddress = DescribePages(request, request.masterPages);
}

bool PagesLocked(const IRP* irp) {
    return irp->MdlAddress != nullptr && (irp->MdlAddress->MdlFlags & MDL_PAGES_LOCKED) != 0;
}

UCHAR LockedPages(const IRP* irp) {
    const bool master = (irp->Flags & IRP_ASSOCIATED_IRP) != 0 && PagesLocked(irp->AssociatedIrp.MasterIrp);
    return static_cast<UCHAR>((PagesLocked(irp) ? kOwnLocked : 0) | (master ? kMasterLocked : 0));
}

void Fill(PIRP irp, const Request& request) {
    irp->Flags = request.flags;
    irp->Tail.Overlay.Thread = KeGetCurrentThread();
    irp->Tail.Overlay.OriginalFileObject = request.originalFile;
    irp->MdlAddress = DescribePages(request, request.pages);
    if (request.associated) AddMaster(irp, request);
    irp->Host->LockedAtStart = LockedPages(irp);
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = request.major;
    next->MinorFunction = request.minor;
    next->FileObject = request.stackFile;
    if (request.major == IRP_MJ_READ || request.major == IRP_MJ_WRITE) {
        next->Parameters.Read.Length = request.length;
        next->Parameters.Read.ByteOffset.QuadPart = request.offset;
    }
}

// The pages belong to the sender: a driver that locked them has unlocked them by the end, and no others.
void Release(PIRP irp) {
    if (LockedPages(irp) != irp->Host->LockedAtStart)
        Violation("page locks out of balance", "request %p ends with other locked pages than it was sent with",
                  static_cast<void*>(irp));
    if ((irp->Flags & IRP_ASSOCIATED_IRP) != 0) {
        ReleaseMdls(irp->AssociatedIrp.MasterIrp);
        ReleaseIrp(irp->AssociatedIrp.MasterIrp);
    }
    ReleaseMdls(irp);
    ReleaseIrp(irp);
}

// Null when the host has no memory for it.
PIRP Build(PDEVICE_OBJECT device, const Request& request) {
    CheckDevice(device, "Send");
    return WithinMemory(PIRP{}, [&] {
        PIRP irp = NewIrp(device->StackSize, nullptr, nullptr);
        try {
            Fill(irp, request);
        } catch (const std::bad_alloc&) {
            irp->Host->LockedAtStart = LockedPages(irp);
            Release(irp);
            throw;
        }
        return irp;
    });
}

constexpr Outcome kNoMemory{STATUS_INSUFFICIENT_RESOURCES, 0};

void FinishAsync(PIRP irp, PVOID context) {
    const RequestDone done = irp->Host->Done;
    const Outcome outcome{irp->IoStatus.Status, irp->IoStatus.Information};
    Release(irp);
    done(context, outcome);
}

}  // namespace

SyncRequest::SyncRequest(PIRP irp) : irp_(irp) {
    irp->Host->Finish = OnFinish;
    irp->Host->FinishContext = this;
    irp->Host->LockedAtStart = LockedPages(irp);
    KeInitializeEvent(&ended_, NotificationEvent, FALSE);
}

SyncRequest::~SyncRequest() {
    Release(irp_);
}

// The sender waits for the event only when it was told STATUS_PENDING; one that was told so falsely must not
// wait for ever either, so every end on another thread sets it.
void SyncRequest::OnFinish(PIRP irp, PVOID self) {
    if (irp->PendingReturned || irp->Tail.Overlay.Thread != KeGetCurrentThread())
        KeSetEvent(&static_cast<SyncRequest*>(self)->ended_, IO_NO_INCREMENT, FALSE);
}

Outcome SyncRequest::Call(PDEVICE_OBJECT device) {
    irp_->Tail.Overlay.Thread = KeGetCurrentThread();
    const UCHAR major = IoGetNextIrpStackLocation(irp_)->MajorFunction;
    const NTSTATUS status = IofCallDriver(device, irp_);
    if (status == STATUS_PENDING) {
        // No time-out and not alertable: the wait always succeeds.
        (void)KeWaitForSingleObject(&ended_, Executive, KernelMode, FALSE, nullptr);
    } else if (irp_->Host->State.load(std::memory_order_relaxed) != IrpState::Finished) {
        Violation("request neither completed nor pending", "device %p, major 0x%02x: returned 0x%08x",
                  static_cast<void*>(device), major, static_cast<ULONG>(status));
    }
    const NTSTATUS final = irp_->IoStatus.Status;
    if ((status == STATUS_PENDING) != (irp_->PendingReturned != FALSE) ||
        (status != STATUS_PENDING && status != final))
        Violation("answer differs from the request's end",
                  "device %p, major 0x%02x: returned 0x%08x, %smarked pending, completed with 0x%08x",
                  static_cast<void*>(device), major, static_cast<ULONG>(status),
                  irp_->PendingReturned ? "" : "not ", static_cast<ULONG>(final));
    return {final, irp_->IoStatus.Information};
}

Outcome Send(PDEVICE_OBJECT device, const Request& request) {
    PIRP irp = Build(device, request);
    if (irp == nullptr) return kNoMemory;
    SyncRequest sync(irp);
    return sync.Call(device);
}

void SendAsync(PDEVICE_OBJECT device, const Request& request, RequestDone done, void* context) {
    PIRP irp = Build(device, request);
    if (irp == nullptr) return done(context, kNoMemory);
    irp->Host->Finish = FinishAsync;
    irp->Host->FinishContext = context;
    irp->Host->Done = done;
    // The answer is of no use: the request ends through `done` either way, and may be gone already.
    (void)IofCallDriver(device, irp);
    // This thread may never wait.
    while (DoWaitWork()) {
    }
}

Outcome SendControl(PDEVICE_OBJECT device, const Control& control) {
    RequireIrql("SendControl", PASSIVE_LEVEL);
    PIRP irp = WithinMemory(PIRP{}, [&] {
        return BuildControl(control.code, device, control.input, control.inputLength, control.output,
                            control.outputLength, control.major);
    });
    if (irp == nullptr) return kNoMemory;
    SyncRequest sync(irp);
    sync.irp()->RequestorMode = control.mode;
    sync.irp()->Host->From32Bit = control.from32Bit;
    sync.irp()->Tail.Overlay.OriginalFileObject = control.file;
    IoGetNextIrpStackLocation(sync.irp())->FileObject = control.file;
    const Outcome outcome = sync.Call(device);
    CopyBuffered(sync.irp());
    return outcome;
}

}  // namespace host
