// The list of all records, and the holding of one. A record may go away whenever nobody holds it: whoever takes
// one from the list either keeps gVolumeListLock while using it or holds it.
#pragma once
#include "driver/record/volume_extension.h"
#include "platform/owners.h"

extern LIST_ENTRY gVolumeList;  // VOLUME_EXTENSION, in creation order, under gVolumeListLock
extern FAST_MUTEX gVolumeListLock;

// Is the record linked in gVolumeList? Reads its mark, which changes with the link under the list's lock, so it
// is safe against records that come and go. Any IRQL; the caller keeps the record itself from going away.
[[nodiscard]] BOOLEAN IsVolumeInList(PVOLUME_EXTENSION volume);
// Both take gVolumeListLock; IRQL: at most APC_LEVEL.
void LinkVolume(PVOLUME_EXTENSION volume);    // at the tail
void UnlinkVolume(PVOLUME_EXTENSION volume);  // idempotent

// Every record, in order: for (PVOLUME_EXTENSION volume : Volumes()). The walk holds nothing but the list's
// lock.
class VolumeWalk {
public:
    explicit VolumeWalk(PLIST_ENTRY link) : m_link(link) {}
    PVOLUME_EXTENSION operator*() const { return CONTAINING_RECORD(m_link, VOLUME_EXTENSION, ListEntry); }
    VolumeWalk& operator++() {
        m_link = m_link->Flink;
        return *this;
    }
    bool operator!=(const VolumeWalk& other) const { return m_link != other.m_link; }

private:
    PLIST_ENTRY m_link;
};
struct VolumeRange {
    PLIST_ENTRY head;
    [[nodiscard]] VolumeWalk begin() const { return VolumeWalk(head->Flink); }
    [[nodiscard]] VolumeWalk end() const { return VolumeWalk(head); }
};
[[nodiscard]] inline VolumeRange Volumes() KVR_REQUIRES(gVolumeListLock) {
    return {&gVolumeList};
}

// Holds a record's RemoveLock, which keeps the record alive, for one request or thread. Every dispatch routine
// that uses the record begins with one; Failed() means that removal has begun: complete the request with
// STATUS_DELETE_PENDING. IRQL: at most DISPATCH_LEVEL.
class RecordHold {
public:
    RecordHold() = default;  // holds nothing
    explicit RecordHold(PVOLUME_EXTENSION volume) : RecordHold(volume, volume) {}
    RecordHold(PVOLUME_EXTENSION volume, PVOID tag);
    RecordHold(RecordHold&& other) noexcept : m_volume(other.Detach()), m_tag(other.m_tag) {}
    RecordHold& operator=(RecordHold&& other) noexcept;
    ~RecordHold() { Release(); }

    [[nodiscard]] bool Failed() const { return m_volume == nullptr; }
    [[nodiscard]] PVOLUME_EXTENSION Get() const { return m_volume; }  // null when nothing is held
    void Release();                                                   // idempotent
    // The hold is another's from now on, who releases it with the same tag.
    PVOLUME_EXTENSION Detach() { return std::exchange(m_volume, nullptr); }

private:
    PVOLUME_EXTENSION m_volume = nullptr;
    PVOID m_tag = nullptr;
};

// The first record that passes `test` and is not being removed, held (tag: the record); or nothing. `test` runs
// under gVolumeListLock, which this takes.
template <class Test>
[[nodiscard]] RecordHold FindVolume(const Test& test) {
    FastMutexLock lock(gVolumeListLock);
    for (PVOLUME_EXTENSION volume : Volumes()) {
        if (!test(volume)) continue;
        RecordHold hold(volume);
        if (!hold.Failed()) return hold;
    }
    return {};
}
// By its VolumeName, ignoring case. IRQL: at most APC_LEVEL.
[[nodiscard]] RecordHold FindVolumeByName(PCUNICODE_STRING name);
