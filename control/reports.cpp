#include "control/reports.h"
#include "driver/record/threads.h"
#include "driver/record/volume_list.h"
#include "formats/kvr_ioctl.h"

namespace {

// Values of the reports' fields.
constexpr ULONG kNotProtected = 0;
constexpr ULONG kProtectedByDefault = 1;
constexpr ULONG kProtectedExplicitly = 2;
constexpr ULONG kFixedInvisible = 3;
constexpr ULONG kRemovableProtected = 1;
constexpr ULONG kRemovableInvisible = 2;
constexpr ULONG kSwapNone = 0;
constexpr ULONG kSwapProvisioning = 1;
constexpr ULONG kSwapPresent = 2;

// At most 63 characters; the zeroed field ends the name.
void FillName(std::uint16_t (&field)[KVR_NAME_CHARS], PVOLUME_EXTENSION volume) {
    WCHAR characters[KVR_NAME_CHARS]{};
    UNICODE_STRING name{0, sizeof(characters) - sizeof(WCHAR), characters};
    RtlCopyUnicodeString(&name, &volume->VolumeName);
    RtlCopyMemory(field, characters, name.Length);
}

ULONG FixedState(PVOLUME_EXTENSION volume) {
    if (!volume->IsProtected) return kNotProtected;
    if (volume->IsInvisible) return kFixedInvisible;
    return volume->IsExplicit ? kProtectedExplicitly : kProtectedByDefault;
}

ULONG SwapStatus(PVOLUME_EXTENSION volume, LONGLONG totalBytes) {
    if (gProvisionThread != nullptr) return kSwapProvisioning;
    const ULONG state = volume->SwapState;
    if (state >= kSwapMapBad && state <= kSwapVolumeTooLarge) return state;
    return totalBytes > 0 ? kSwapPresent : kSwapNone;
}

void FillRecord(KVR_FIXED_VOLUME_STATUS& record, PVOLUME_EXTENSION volume) {
    {
        FastMutexLock lock(volume->SwapLock);
        record.SwapUsedBytes = static_cast<LONGLONG>(volume->SwapUsedBytes);
        record.SwapTotalBytes = static_cast<LONGLONG>(volume->SwapFreeBytes + volume->SwapUsedBytes);
    }
    record.SwapStatus = SwapStatus(volume, record.SwapTotalBytes);
    record.State = FixedState(volume);
    FillName(record.VolumeName, volume);
}

void FillRecord(KVR_REMOVABLE_VOLUME_STATUS& record, PVOLUME_EXTENSION volume) {
    if (volume->IsProtected)
        record.AccessMode = volume->IsInvisible ? kRemovableInvisible : kRemovableProtected;
    FillName(record.VolumeName, volume);
}

// Every record is filled from zero on the stack and copied whole: no byte of it reaches the caller unset.
template <class Record>
ULONG_PTR FillReport(UCHAR* buffer, ULONG length, bool removable) KVR_REQUIRES(gVolumeListLock) {
    ULONG_PTR written = 0;
    for (PVOLUME_EXTENSION volume : Volumes()) {
        if (length - written < sizeof(Record)) break;
        if ((volume->MediaType == RemovableMedia) != removable) continue;
        Record record{};
        FillRecord(record, volume);
        RtlCopyMemory(buffer + written, &record, sizeof(record));
        written += sizeof(record);
    }
    return written;
}

// The buffer is the caller's: writing to it may raise, and the list's lock must not stay behind. A guard
// object would (its destructor does not run then), so the release stands in a termination handler.
template <class Record>
NTSTATUS Report(PVOID buffer, ULONG length, bool removable, ULONG_PTR* written) KVR_NO_ANALYSIS {
    ULONG_PTR filled = 0;
    ExAcquireFastMutex(&gVolumeListLock);
    TryFinally(
        [&]() KVR_NO_ANALYSIS { filled = FillReport<Record>(static_cast<UCHAR*>(buffer), length, removable); },
        []() KVR_NO_ANALYSIS { ExReleaseFastMutex(&gVolumeListLock); });
    *written = filled;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS ReportRemovableVolumes(PVOID buffer, ULONG length, ULONG_PTR* written) {
    return Report<KVR_REMOVABLE_VOLUME_STATUS>(buffer, length, true, written);
}

NTSTATUS ReportFixedVolumes(PVOID buffer, ULONG length, ULONG_PTR* written) {
    return Report<KVR_FIXED_VOLUME_STATUS>(buffer, length, false, written);
}
