#include "redirect/write_order.h"
#include "platform/checked_list.h"
#include "platform/owners.h"

namespace {

WRITE_PLACE* PlaceOf(PLIST_ENTRY link) {
    return CONTAINING_RECORD(link, WRITE_PLACE, Link);
}

bool Overlap(const WRITE_PLACE* one, const WRITE_PLACE* other) {
    return one->Begin < other->End && other->Begin < one->End;
}

// The writes under way that the new one waits for; none when its thread has a place already.
ULONG CountEarlier(PVOLUME_EXTENSION volume, const WRITE_PLACE* place) KVR_REQUIRES(volume->WriteOrderLock) {
    ULONG count = 0;
    PLIST_ENTRY head = &volume->WritesUnderWay;
    for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) {
        const WRITE_PLACE* earlier = PlaceOf(link);
        if (earlier->Thread == place->Thread) return 0;
        if (Overlap(earlier, place)) ++count;
    }
    return count;
}

// Tells the later ones that this one has ended. Who waits cannot go before WriteOrderLock is released.
void TellLater(PVOLUME_EXTENSION volume, const WRITE_PLACE* place) KVR_REQUIRES(volume->WriteOrderLock) {
    PLIST_ENTRY head = &volume->WritesUnderWay;
    for (PLIST_ENTRY link = place->Link.Flink; link != head; link = link->Flink) {
        WRITE_PLACE* later = PlaceOf(link);
        if (later->EarlierOnes == 0 || !Overlap(later, place)) continue;
        if (--later->EarlierOnes == 0) KeSetEvent(&later->Turn, IO_NO_INCREMENT, FALSE);
    }
}

}  // namespace

void InitWriteOrder(PVOLUME_EXTENSION volume) KVR_NO_ANALYSIS {
    ExInitializeFastMutex(&volume->WriteOrderLock);
    InitializeListHead(&volume->WritesUnderWay);
}

WritePlace::WritePlace(PVOLUME_EXTENSION volume, const LARGE_INTEGER* offset, ULONG length)
    : m_volume(length ? volume : nullptr) {
    if (!m_volume) return;
    m_place.Thread = KvrCurrentThread();
    m_place.Begin = static_cast<ULONG64>(offset->QuadPart);
    m_place.End = m_place.Begin + length;
    bool waits = false;
    {
        FastMutexLock lock(volume->WriteOrderLock);
        m_place.EarlierOnes = CountEarlier(volume, &m_place);
        waits = m_place.EarlierOnes != 0;
        if (waits) KeInitializeEvent(&m_place.Turn, NotificationEvent, FALSE);
        LinkAtTail(&volume->WritesUnderWay, &m_place.Link);
    }
    KvrAnnounceHold(&volume->WriteOrderLock);
    if (waits)
        KVR_DISCARD(KeWaitForSingleObject(&m_place.Turn, Executive, KernelMode, FALSE, nullptr),
                    "an untimed kernel-mode wait ends only with the event");
}

void WritePlace::Leave() {
    PVOLUME_EXTENSION volume = std::exchange(m_volume, nullptr);
    if (!volume) return;
    KvrAnnounceRelease(&volume->WriteOrderLock);
    FastMutexLock lock(volume->WriteOrderLock);
    TellLater(volume, &m_place);
    Unlink(&m_place.Link);
}
