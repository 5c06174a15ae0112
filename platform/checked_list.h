// Doubly linked lists whose every change first verifies that the neighbours point back, and stops the
// system when they do not: a corrupt list is never followed further. The caller holds what guards the list.
// IRQL: any at which the entries are resident.
#pragma once
#include "platform/kernel.h"

inline constexpr ULONG kFastFailCorruptListEntry = 3;

inline void VerifyNeighbours(PLIST_ENTRY before, PLIST_ENTRY after) {
    if (before->Flink != after || after->Blink != before) KvrFastFail(kFastFailCorruptListEntry);
}

inline void LinkBetween(PLIST_ENTRY before, PLIST_ENTRY entry, PLIST_ENTRY after) {
    VerifyNeighbours(before, after);
    entry->Blink = before;
    entry->Flink = after;
    before->Flink = entry;
    after->Blink = entry;
}

inline void LinkAtTail(PLIST_ENTRY head, PLIST_ENTRY entry) {
    LinkBetween(head->Blink, entry, head);
}

inline void Unlink(PLIST_ENTRY entry) {
    VerifyNeighbours(entry->Blink, entry);
    VerifyNeighbours(entry, entry->Flink);
    entry->Blink->Flink = entry->Flink;
    entry->Flink->Blink = entry->Blink;
}
