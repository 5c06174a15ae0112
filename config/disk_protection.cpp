// Disks: which number each has, where its partition tables lie, and does it hold a protected volume?
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "driver/record/format_string.h"
#include "driver/record/hardening.h"
#include "driver/record/names.h"
#include "driver/record/requests.h"
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
    return volume->IsProtected || AreWritesRefused(volume);
}

// Where the names do not tell, the number does that the disk itself told.
BOOLEAN HasNumberedExtent(ULONG number) KVR_REQUIRES(gVolumeListLock) {
    if (number == kUnknownDisk) return FALSE;
    for (PVOLUME_EXTENSION volume : Volumes()) {
        if (volume->IsDisk || !IsNowProtected(volume)) continue;
        const VOLUME_EXTENTS& extents = volume->VolumeDiskExtents;
        for (ULONG i = 0; i < extents.NumberOfDiskExtents; ++i)
            if (extents.Extents[i].DiskNumber == number) return TRUE;
    }
    return FALSE;
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

// ---- what a disk tells about itself ------------------------------------------------------------------------

// The number in \Device\Harddisk<number>\..., kUnknownDisk when the name is another one.
ULONG NumberInName(PCUNICODE_STRING diskName) {
    constexpr ULONG mostDigits = 9;
    constexpr WCHAR head[] = W("\\Device\\Harddisk");
    constexpr ULONG first = sizeof(head) / sizeof(WCHAR) - 1;
    ULONG number = 0;
    ULONG i = first;
    const ULONG characters = diskName->Length / sizeof(WCHAR);
    for (; i < characters && i < first + mostDigits; ++i) {
        const WCHAR digit = diskName->Buffer[i];
        if (digit < W('0') || digit > W('9')) break;
        number = number * 10 + (digit - W('0'));
    }
    return i != first && i < characters && IsNameOfDisk(diskName, number) ? number : kUnknownDisk;
}

ULONG QueryNumber(PVOLUME_EXTENSION disk) {
    DiskName name;
    if (name.Query(disk->FilterDevice)) {
        const ULONG number = NumberInName(name.Get());
        if (number != kUnknownDisk) return number;
    }
    STORAGE_DEVICE_NUMBER told{};
    const NTSTATUS status = QueryTarget(disk, IOCTL_STORAGE_GET_DEVICE_NUMBER, &told, sizeof(told));
    return NT_SUCCESS(status) ? told.DeviceNumber : kUnknownDisk;
}

// Only what the extents leave open is asked for: a mirrored volume is smaller than they are together.
BOOLEAN MayBeTooLarge(PVOLUME_EXTENSION volume) {
    const VOLUME_EXTENTS& extents = volume->VolumeDiskExtents;
    ULONG64 bytes = 0;
    for (ULONG i = 0; i < extents.NumberOfDiskExtents; ++i)
        bytes += static_cast<ULONG64>(extents.Extents[i].ExtentLength.QuadPart);
    return extents.NumberOfDiskExtents == 0 || bytes >= ULONG64{kFreeSpaceMark} * volume->BytesPerSector;
}

LONGLONG QueryBytes(PVOLUME_EXTENSION volume) {
    LARGE_INTEGER bytes{};
    const NTSTATUS status = QueryTarget(volume, IOCTL_DISK_GET_LENGTH_INFO, &bytes, sizeof(bytes));
    return NT_SUCCESS(status) && bytes.QuadPart > 0 ? bytes.QuadPart : 0;
}

// ---- partition tables --------------------------------------------------------------------------------------

// The first table takes a sector of its own for old systems, one for its header, and its entries; the second
// has its entries and its header at the disk's end. On a disk with the old kind of table volumes may begin or
// end there: what they occupy is none of a table's.
constexpr LONGLONG kEntriesBytes = 128 * 128;

struct TABLES {
    LONGLONG End;
    LONGLONG BackupStart;  // 0: unknown
};

TABLES UsualTables(PVOLUME_EXTENSION disk) {
    const LONGLONG sector = disk->BytesPerSector;
    const LONGLONG backup = sector + kEntriesBytes;
    return {sector + backup, disk->DeviceBytes > backup ? disk->DeviceBytes - backup : 0};
}

void MakeRoomFor(const DISK_EXTENT& extent, TABLES* tables) {
    const LONGLONG start = extent.StartingOffset.QuadPart;
    const LONGLONG end = start + extent.ExtentLength.QuadPart;
    if (start < tables->End) tables->End = start;
    if (tables->BackupStart != 0 && end > tables->BackupStart) tables->BackupStart = end;
}

void PlaceTables(PVOLUME_EXTENSION disk) KVR_REQUIRES(gVolumeListLock) {
    TABLES tables = UsualTables(disk);
    for (PVOLUME_EXTENSION volume : Volumes()) {
        const VOLUME_EXTENTS& extents = volume->VolumeDiskExtents;
        for (ULONG i = 0; i < extents.NumberOfDiskExtents; ++i)
            if (extents.Extents[i].DiskNumber == disk->DiskNumber) MakeRoomFor(extents.Extents[i], &tables);
    }
    disk->TableEnd = tables.End;
    disk->BackupTableStart = tables.BackupStart;
}

}  // namespace

void LearnPlace(PVOLUME_EXTENSION volume) {
    volume->DiskNumber = volume->IsDisk ? QueryNumber(volume) : kUnknownDisk;
    const bool unsure = volume->IsVolume && volume->MediaType == FixedMedia && MayBeTooLarge(volume);
    if (unsure || (volume->IsDisk && gHardening)) volume->DeviceBytes = QueryBytes(volume);
    FastMutexLock lock(gVolumeListLock);
    for (PVOLUME_EXTENSION disk : Volumes())
        if (disk->IsDisk) PlaceTables(disk);
}

BOOLEAN TouchesPartitionTable(PVOLUME_EXTENSION disk, LONGLONG offset, ULONG length) {
    if (length == 0) return FALSE;
    const LONGLONG backup = disk->BackupTableStart;
    return offset < disk->TableEnd || (backup != 0 && offset > backup - length);
}

BOOLEAN HasProtectedVolume(PDEVICE_OBJECT device) {
    if (!gTesselEnabled) return FALSE;
    DiskName name;
    const BOOLEAN named = name.Query(device);
    if (named) DbgPrint("Kvr!HasProtectedVolume: VolumeName: %wZ\n", name.Get());
    FastMutexLock lock(gVolumeListLock);
    if (named && (HasListedExtent(name.Get()) || HasLikelyVolume(name.Get()))) return TRUE;
    return HasNumberedExtent(VolumeOf(device)->DiskNumber);
}
