#include "platform/host/io/irp.h"
#include <cstdlib>
#include "platform/host/check/injector.h"
#include "platform/host/memory/mdl.h"
#include "platform/host/io/thread_io.h"
#include "platform/host/check/host_memory.h"
#include "platform/host/check/verifier.h"

namespace host {
namespace {

// Locations that lie between a request and its first one: a driver that was given the last location and
// prepares a next one writes there, and IofCallDriver stops it, rather than over the request.
constexpr int kSpareLocations = 1;

constexpr SIZE_T kHeaderSize = (sizeof(HostIrp) + 15) / 16 * 16;
static_assert(sizeof(IRP) % alignof(IO_STACK_LOCATION) == 0);

PIRP IrpOf(HostIrp* own) {
    return reinterpret_cast<PIRP>(reinterpret_cast<char*>(own) + kHeaderSize);
}

// Index into the caches of the smallest size that holds `stackSize`, or -1.
int SizeClass(CCHAR stackSize) {
    for (unsigned i = 0; i < sizeof(kIrpSizes); ++i)
        if (stackSize <= kIrpSizes[i]) return static_cast<int>(i);
    return -1;
}

HostIrp* Allocate(ThreadIo& io, CCHAR stackSize) {
    const int size = SizeClass(stackSize);
    if (size >= 0) {
        if (HostIrp* cached = io.irps[size].Take()) return cached;
    }
    const CCHAR capacity = size >= 0 ? kIrpSizes[size] : stackSize;
    const SIZE_T bytes =
        kHeaderSize + sizeof(IRP) + static_cast<SIZE_T>(kSpareLocations + capacity) * sizeof(IO_STACK_LOCATION);
    void* memory = std::malloc(bytes);
    if (memory == nullptr) throw std::bad_alloc();
    auto* own = new (memory) HostIrp{};
    own->Capacity = capacity;
    return own;
}

}  // namespace

PIRP NewIrp(CCHAR stackSize, IrpFinish finish, PVOID context) {
    if (stackSize <= 0) Violation("stack size", "a request of %d stack locations", stackSize);
    ThreadIo& io = ThisThreadIo();
    HostIrp* own = Allocate(io, stackSize);
    io.irpCount.Add(1);
    own->State.store(IrpState::Owned, std::memory_order_relaxed);
    own->Finish = finish;
    own->FinishContext = context;
    own->Done = nullptr;
    own->From32Bit = false;
    own->LockedAtStart = 0;
    own->OutputLength = 0;
    own->OwnedSystemBuffer = nullptr;
    PIRP irp = IrpOf(own);
    auto* locations = reinterpret_cast<PIO_STACK_LOCATION>(irp + 1);
    const int used = kSpareLocations + stackSize;
    RtlZeroMemory(irp, sizeof(IRP) + static_cast<SIZE_T>(used) * sizeof(IO_STACK_LOCATION));
    irp->StackCount = stackSize;
    irp->CurrentLocation = static_cast<CCHAR>(stackSize + 1);
    irp->Tail.Overlay.CurrentStackLocation = locations + used;
    irp->Host = own;
    return irp;
}

void ReleaseIrp(PIRP irp) {
    HostIrp* own = irp->Host;
    if (own == nullptr || own->State.load(std::memory_order_relaxed) == IrpState::Freed)
        Violation("request freed twice", "request %p", static_cast<void*>(irp));
    std::free(own->OwnedSystemBuffer);
    own->State.store(IrpState::Freed, std::memory_order_relaxed);
    ThreadIo& io = ThisThreadIo();
    io.irpCount.Add(-1);
    const int size = SizeClass(own->Capacity);
    if (size < 0 || !io.irps[size].Put(own)) std::free(own);
}

void ReleaseMdls(PIRP irp) {
    while (PMDL mdl = irp->MdlAddress) {
        irp->MdlAddress = mdl->Next;
        if ((mdl->MdlFlags & MDL_PAGES_LOCKED) != 0) MmUnlockPages(mdl);
        IoFreeMdl(mdl);
    }
}

void FreeCachedIrps(ThreadIo& io) {
    for (auto& list : io.irps)
        while (HostIrp* own = list.Take()) std::free(own);
}

}  // namespace host

PIRP IoAllocateIrp(CCHAR stackSize, BOOLEAN) {
    if (host::InjectFault(host::Fault::BuildRequest)) return nullptr;
    return host::WithinMemory(PIRP{}, [&] { return host::NewIrp(stackSize, nullptr, nullptr); });
}

BOOLEAN IoIs32bitProcess(PIRP irp) {
    return irp->Host->From32Bit;
}

void IoFreeIrp(PIRP irp) {
    const host::IrpState state = irp->Host->State.load(std::memory_order_relaxed);
    if (state == host::IrpState::Sent)
        host::Violation("request freed while a driver holds it", "request %p", static_cast<void*>(irp));
    host::ReleaseIrp(irp);
}
