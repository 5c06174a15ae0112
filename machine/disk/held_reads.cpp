#include "machine/disk/held_reads.h"
#include "platform/host/sync/wait_work.h"

namespace machine {
namespace {

// Linked by what a request has for whom it is pending with; the way back is not needed and holds the context.
struct Held {
    PLIST_ENTRY first, last;
    void (*carryOut)(PIRP, void*);
};
constinit thread_local Held gHeld{};

bool CarryOutOldest() {
    const PLIST_ENTRY oldest = gHeld.first;
    if (oldest == nullptr) return false;
    gHeld.first = oldest->Flink;
    gHeld.carryOut(CONTAINING_RECORD(oldest, IRP, Tail.Overlay.ListEntry), oldest->Blink);
    return true;
}

}  // namespace

void HoldRead(PIRP irp, void (*carryOut)(PIRP irp, void* context), void* context) {
    const PLIST_ENTRY entry = &irp->Tail.Overlay.ListEntry;
    entry->Flink = nullptr;
    entry->Blink = static_cast<PLIST_ENTRY>(context);
    (gHeld.first == nullptr ? gHeld.first : gHeld.last->Flink) = entry;
    gHeld.last = entry;
    gHeld.carryOut = carryOut;
    host::SetWaitWork(CarryOutOldest);
}

}  // namespace machine
