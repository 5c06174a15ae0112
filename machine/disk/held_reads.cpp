#include "machine/disk/held_reads.h"
#include "platform/host/sync/wait_work.h"

namespace machine {
namespace {

// Linked by what a request has for whom it is pending with.
struct Held {
    PLIST_ENTRY first, last;
    void (*carryOut)(PIRP);
};
constinit thread_local Held gHeld{};

bool CarryOutOldest() {
    const PLIST_ENTRY oldest = gHeld.first;
    if (oldest == nullptr) return false;
    gHeld.first = oldest->Flink;
    gHeld.carryOut(CONTAINING_RECORD(oldest, IRP, Tail.Overlay.ListEntry));
    return true;
}

}  // namespace

void HoldRead(PIRP irp, void (*carryOut)(PIRP irp)) {
    const PLIST_ENTRY entry = &irp->Tail.Overlay.ListEntry;
    entry->Flink = nullptr;
    (gHeld.first == nullptr ? gHeld.first : gHeld.last->Flink) = entry;
    gHeld.last = entry;
    gHeld.carryOut = carryOut;
    host::SetWaitWork(CarryOutOldest);
}

}  // namespace machine
