#include "driver/record/volume_list.h"
#include "driver/record/names.h"
#include "platform/checked_list.h"

BOOLEAN IsVolumeInList(PVOLUME_EXTENSION volume) {
    return volume->IsListed;
}

void LinkVolume(PVOLUME_EXTENSION volume) {
    FastMutexLock lock(gVolumeListLock);
    LinkAtTail(&gVolumeList, &volume->ListEntry);
    volume->IsListed = TRUE;
}

void UnlinkVolume(PVOLUME_EXTENSION volume) {
    FastMutexLock lock(gVolumeListLock);
    if (!volume->IsListed) return;
    volume->IsListed = FALSE;
    Unlink(&volume->ListEntry);
}

RecordHold::RecordHold(PVOLUME_EXTENSION volume, PVOID tag)
    : m_volume(NT_SUCCESS(IoAcquireRemoveLock(&volume->RemoveLock, tag)) ? volume : nullptr), m_tag(tag) {}

RecordHold& RecordHold::operator=(RecordHold&& other) noexcept {
    if (this == &other) return *this;
    Release();
    m_volume = other.Detach();
    m_tag = other.m_tag;
    return *this;
}

void RecordHold::Release() {
    if (PVOLUME_EXTENSION volume = Detach()) IoReleaseRemoveLock(&volume->RemoveLock, m_tag);
}

RecordHold FindVolumeByName(PCUNICODE_STRING name) {
    return FindVolume(
        [name](PVOLUME_EXTENSION volume) { return CompareNames(&volume->VolumeName, name, TRUE) == 0; });
}
