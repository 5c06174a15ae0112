// Does a disk hold a protected volume?
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "driver/record/format_string.h"
#include "driver/record/names.h"
#include "driver/record/volume_list.h"

namespace {

// The object name of the first named device of a stack, over its own buffer.
class DiskName {
public:
    // Must be called with no lock held.
    BOOLEAN Query(PDEVICE_OBJECT device) {
        // The stack below an attached filter stays in place, so each lower device outlives its reference.
        while (device) {
            ULONG needed = 0;
            const NTSTATUS status = ObQueryNameString(device, &m_info, sizeof(m_bytes), &needed);
            if (NT_SUCCESS(status) && m_info.Name.Length != 0) return TRUE;
            device = IoGetLowerDeviceObject(device);
            if (device) ObDereferenceObject(device);
        }
        return FALSE;
    }
    PCUNICODE_STRING Get() const { return &m_info.Name; }

private:
    union {
        OBJECT_NAME_INFORMATION m_info;
        UCHAR m_bytes[256];
    };
};

// Does an extent on the disk of that number lie on the disk of that name?
BOOLEAN IsNameOfDisk(PCUNICODE_STRING diskName, ULONG number) {
    WCHAR buffer[64];
    UNICODE_STRING prefix = {0, sizeof(buffer), buffer};
    if (!NT_SUCCESS(FormatString(&prefix, W("\\Device\\Harddisk%d\\"), number))) return FALSE;
    UNICODE_STRING head = *diskName;
    if (head.Length > prefix.Length) head.Length = prefix.Length;
    return CompareNames(&prefix, &head, TRUE) == 0;
}

BOOLEAN HasExtentOnDisk(PVOLUME_EXTENSION volume, PCUNICODE_STRING diskName) {
    const VOLUME_EXTENTS& extents = volume->VolumeDiskExtents;
    for (ULONG i = 0; i < extents.NumberOfDiskExtents; ++i)
        if (IsNameOfDisk(diskName, extents.Extents[i].DiskNumber)) return TRUE;
    return FALSE;
}

// Do the two names agree through their second backslash, that is in their first component?
BOOLEAN SharesFirstComponent(PCUNICODE_STRING a, PCUNICODE_STRING b) {
    constexpr ULONG mostCharacters = 64;
    const ULONG bytes = a->Length < b->Length ? a->Length : b->Length;
    ULONG backslashes = 0;
    for (ULONG i = 0; i < bytes / sizeof(WCHAR) && i < mostCharacters && a->Buffer[i] == b->Buffer[i]; ++i)
        if (a->Buffer[i] == W('\\') && ++backslashes == 2) return TRUE;
    return FALSE;
}

BOOLEAN IsNowProtected(PVOLUME_EXTENSION volume) {
    if (!volume->IsProtected) UpdateVolumeProtection(volume);
    return volume->IsProtected;
}

BOOLEAN HasListedExtent(PCUNICODE_STRING diskName) KVR_REQUIRES(gVolumeListLock) {
    BOOLEAN found = FALSE;
    for (PVOLUME_EXTENSION volume : Volumes()) {
        if (!IsNowProtected(volume)) continue;
        DbgPrint("Kvr!HasProtectedVolume:\t is protected %wZ\n", &volume->VolumeName);
        if (!HasExtentOnDisk(volume, diskName)) continue;
        DbgPrint("Kvr!HasProtectedVolume: disk protected!\n");
        found = TRUE;
    }
    return found;
}

// Protected volumes whose extents are unknown may lie on any disk that is named like them.
BOOLEAN HasLikelyVolume(PCUNICODE_STRING diskName) KVR_REQUIRES(gVolumeListLock) {
    for (PVOLUME_EXTENSION volume : Volumes()) {
        if (volume->IsDisk || volume->VolumeDiskExtents.NumberOfDiskExtents != 0) continue;
        if (IsNowProtected(volume) && SharesFirstComponent(&volume->VolumeName, diskName)) return TRUE;
    }
    return FALSE;
}

}  // namespace

BOOLEAN HasProtectedVolume(PDEVICE_OBJECT device) {
    if (!gTesselEnabled) return FALSE;
    DiskName name;
    if (!name.Query(device)) return FALSE;
    DbgPrint("Kvr!HasProtectedVolume: VolumeName: %wZ\n", name.Get());
    FastMutexLock lock(gVolumeListLock);
    return HasListedExtent(name.Get()) || HasLikelyVolume(name.Get());
}
