// How a file system, the kernel or a program on the host sends requests to a device. Send and SendAsync are the
// hot path of a hosted machine: a request costs one IRP and one MDL from the thread's caches and no lock.
//
// The request goes to exactly the device given: callers pass the top of a stack (TopOfStack). A kernel
// exception that leaves the dispatch routine goes on to the caller: a request that is waited for ends with it,
// an asynchronous one stays outstanding.
#pragma once
#include "platform/host/io/irp.h"

namespace host {

// How the request describes its buffer.
enum class Pages : UCHAR {
    Locked,    // an MDL with locked pages, as a file system sends
    Unlocked,  // an MDL whose pages the driver below must lock before it maps them
    Bad,       // as Unlocked, and locking it raises STATUS_ACCESS_VIOLATION
    NonPaged,  // an MDL over non-paged pool
    Partial,   // an MDL that describes a part of another one, whose pages are locked
    None,      // no MDL
};

struct Request {
    UCHAR major = IRP_MJ_READ;
    UCHAR minor = 0;
    Pages pages = Pages::Locked;
    bool associated = false;  // IRP_ASSOCIATED_IRP, with a master request that carries what follows
    Pages masterPages = Pages::Locked;
    ULONG flags = IRP_NOCACHE;
    ULONG length = 0;     // bytes
    LONGLONG offset = 0;  // bytes, on the device
    void* buffer = nullptr;
    PFILE_OBJECT originalFile = nullptr;  // Tail.Overlay.OriginalFileObject
    PFILE_OBJECT stackFile = nullptr;     // FileObject of the first stack location
    PFILE_OBJECT masterFile = nullptr;    // OriginalFileObject of the master request
};

struct Outcome {
    NTSTATUS status;
    ULONG_PTR information;
};

// Sends a read, write, flush or other buffer request and waits for its end. IRQL: below DISPATCH_LEVEL. A
// request for which the host has no memory ends with STATUS_INSUFFICIENT_RESOURCES, here and below, without
// being sent.
[[nodiscard]] Outcome Send(PDEVICE_OBJECT device, const Request& request);

// Sends the request and returns; `done` is called exactly once, perhaps before the return and on any thread.
// The buffer and the file objects stay the caller's and must live until then.
using RequestDone = void (*)(void* context, Outcome outcome);
void SendAsync(PDEVICE_OBJECT device, const Request& request, RequestDone done, void* context);

// A request of the kernel's own that its sender waits for. The sender fills the request and its next stack
// location, calls a device once, and may read the request until this is destroyed, which releases it.
class SyncRequest {
public:
    explicit SyncRequest(PIRP irp);
    ~SyncRequest();
    SyncRequest(const SyncRequest&) = delete;
    SyncRequest& operator=(const SyncRequest&) = delete;

    PIRP irp() const { return irp_; }
    // Stops when the dispatch routine's answer is not what became of the request.
    Outcome Call(PDEVICE_OBJECT device);

private:
    static void OnFinish(PIRP irp, PVOID self);
    PIRP irp_;
    KEVENT ended_;
};

// Sends a device-control request and waits. `major` is IRP_MJ_DEVICE_CONTROL, IRP_MJ_INTERNAL_DEVICE_CONTROL or
// IRP_MJ_FILE_SYSTEM_CONTROL. Buffered codes see one system buffer; it is copied to `output` unless the status
// is an error; what lies behind the input in it is 0xA5. IRQL: PASSIVE_LEVEL.
struct Control {
    ULONG code;
    const void* input = nullptr;
    ULONG inputLength = 0;  // bytes
    void* output = nullptr;
    ULONG outputLength = 0;  // bytes
    PFILE_OBJECT file = nullptr;
    UCHAR major = IRP_MJ_DEVICE_CONTROL;
    KPROCESSOR_MODE mode = KernelMode;
    bool from32Bit = false;
};
[[nodiscard]] Outcome SendControl(PDEVICE_OBJECT device, const Control& control);

}  // namespace host
