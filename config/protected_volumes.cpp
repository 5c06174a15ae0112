#include "config/protected_volumes.h"
#include "config/parser.h"
#include "config/storage.h"
#include "driver/record/hardening.h"
#include "driver/record/names.h"
#include "formats/config_grammar.h"
#include "platform/owners.h"

namespace {

// The numbers in the message about a missing entry, which name the place of the failure: the list was empty, or
// the entry was to follow others.
constexpr ULONG kFirstEntrySite = 527;
constexpr ULONG kNextEntrySite = 507;

// The name of an entry: what precedes the first comma or semicolon of the configured ID.
UNICODE_STRING NameOfId(PCUNICODE_STRING id) {
    UNICODE_STRING name = *id;
    const USHORT bytes = id->Length < id->MaximumLength ? id->Length : id->MaximumLength;
    const ULONG length = config::NameLength(id->Buffer, bytes / sizeof(WCHAR)) * sizeof(WCHAR);
    if (length < bytes) name.Length = static_cast<USHORT>(length);
    return name;
}

PROTECTED_VOLUME* NewEntry(PCUNICODE_STRING name, ULONG flags, BOOLEAN dropsAtNextBoot) {
    PROTECTED_VOLUME* entry = NewRecord<PROTECTED_VOLUME>().Release();
    if (!entry) return nullptr;
    entry->Name = {0, sizeof(entry->NameBuffer), entry->NameBuffer};
    entry->Flags = flags;
    entry->DropsAtNextBoot = dropsAtNextBoot;
    RtlCopyUnicodeString(&entry->Name, name);
    return entry;
}

// Asked by requests to the last of a shutdown, so it must not need what is pageable.
PROTECTED_VOLUME* FindEntry(PCUNICODE_STRING name) {
    PROTECTED_VOLUME* entry = gProtectedVolumeList;
    while (entry && CompareNames(&entry->Name, name, TRUE) != 0) entry = entry->Next;
    return entry;
}

// Storage that cannot serve a protected volume. State 5 is not among them: a volume found protected in it keeps
// its live map, and stays protected until the next boot.
BOOLEAN IsStorageLost(PVOLUME_EXTENSION volume) {
    const ULONG state = volume->SwapState;
    return state != kSwapUsable && state != kSwapFilesNotHeld;
}

// A request that decided a moment ago that the volume may be protected must not outlast a later finding that it
// may not: the finding is published first, so either it overrides this store or this routine sees it.
void Protect(PVOLUME_EXTENSION volume) {
    const BOOLEAN before = volume->IsProtected.exchange(TRUE);
    if (!before && (volume->ProtectionDeferred || IsStorageLost(volume))) volume->IsProtected = FALSE;
}

// IsProtected is stored last, and once: who sees it set sees what belongs to it.
void ApplyFlags(PVOLUME_EXTENSION volume, ULONG flags) {
    volume->IsInvisible = (flags & PV_INVISIBLE) != 0;
    volume->BootAction = flags & (PV_ACTION_DISCARD | PV_ACTION_MERGE);
    volume->IsExplicit = (flags & PV_EXPLICIT) != 0;
    if (flags & PV_PROTECTED)
        Protect(volume);
    else
        volume->IsProtected = FALSE;
}

// The saved map counts sectors in 32 bits, the largest of which says "free": changes at or beyond that sector
// would be lost at the next boot, unless all are to be. What this boot drops says nothing of that.
BOOLEAN IsTooLargeToKeep(PVOLUME_EXTENSION volume, const PROTECTED_VOLUME* entry) {
    if (!(entry->Flags & PV_PROTECTED) || entry->DropsAtNextBoot || volume->MediaType != FixedMedia)
        return FALSE;
    const ULONG sector = volume->BytesPerSector;
    return sector != 0 && static_cast<ULONG64>(volume->DeviceBytes) / sector >= ULONG64{kFreeSpaceMark};
}

// Takes the place of protection: the state says why there is none.
void RefuseToKeep(PVOLUME_EXTENSION volume) {
    DbgPrint("Kvr!UpdateVolumeProtection: %wZ is too large to keep its changes, not protected\n",
             &volume->VolumeName);
    volume->SwapState = kSwapVolumeTooLarge;
    volume->IsProtected = FALSE;
}

void ApplyRemovableDefaults(PVOLUME_EXTENSION volume) {
    volume->IsInvisible = gRVInvisible.load();
    if (gRVProtect)
        Protect(volume);
    else
        volume->IsProtected = FALSE;
}

}  // namespace

NTSTATUS AddProtectedVolume(PCUNICODE_STRING id, ULONG flags, BOOLEAN dropsAtNextBoot) {
    const UNICODE_STRING name = NameOfId(id);
    std::atomic<PROTECTED_VOLUME*>* link = &gProtectedVolumeList;
    while (PROTECTED_VOLUME* entry = *link) {
        if (RtlCompareUnicodeString(&entry->Name, &name, TRUE) == 0) return STATUS_SUCCESS;
        link = &entry->Next;
    }
    PROTECTED_VOLUME* entry = NewEntry(&name, flags, dropsAtNextBoot);
    if (!entry) {
        DbgPrint("Kvr!AddProtectedVolume [%d] STATUS_INSUFFICIENT_RESOURCES\n",
                 link == &gProtectedVolumeList ? kFirstEntrySite : kNextEntrySite);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *link = entry;  // complete before a reader on another thread can reach it
    return STATUS_SUCCESS;
}

BOOLEAN IsProtectedVolumeListed(PVOLUME_EXTENSION volume) {
    return FindEntry(&volume->VolumeName) != nullptr;
}

ULONG GetProtectedVolumeFlags(PVOLUME_EXTENSION volume) {
    const PROTECTED_VOLUME* entry = FindEntry(&volume->VolumeName);
    return entry ? entry->Flags : 0;
}

BOOLEAN IsDroppedAtNextBoot(PVOLUME_EXTENSION volume) {
    const PROTECTED_VOLUME* entry = FindEntry(&volume->VolumeName);
    return entry && entry->DropsAtNextBoot && !gConfigWrittenByTool && !gConfigDirty;
}

BOOLEAN AreWritesRefused(PVOLUME_EXTENSION volume) {
    const ULONG state = volume->SwapState;
    if (state == kSwapUsable || !gHardening || !gTesselEnabled || volume->MediaType != FixedMedia) return FALSE;
    if (state == kSwapFilesNotHeld && volume->IsProtected) return !IsDroppedAtNextBoot(volume);
    return (GetProtectedVolumeFlags(volume) & PV_PROTECTED) && !volume->ProtectionDeferred &&
           (state == kSwapMapBad || state == kSwapNoLocation || state == kSwapFilesNotHeld);
}

void UpdateVolumeProtection(PVOLUME_EXTENSION volume) {
    const bool readOnly = volume->Target->Characteristics & FILE_READ_ONLY_DEVICE;
    if (!readOnly && volume->SwapState == kSwapFilesNotHeld) return;
    if (readOnly || IsStorageLost(volume)) {
        volume->IsProtected = FALSE;
        return;
    }
    const ULONG media = volume->MediaType;
    if (media == 0 || (volume->ProtectionDeferred && !volume->IsProtected)) return;
    const PROTECTED_VOLUME* entry = FindEntry(&volume->VolumeName);
    if (entry && IsTooLargeToKeep(volume, entry))
        RefuseToKeep(volume);
    else if (entry)
        ApplyFlags(volume, entry->Flags);
    else if (media != FixedMedia)
        ApplyRemovableDefaults(volume);
}
