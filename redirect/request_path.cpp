#include "redirect/request_path.h"
#include "config/config_files.h"
#include "config/config_location.h"
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "config/storage.h"
#include "driver/record/hardening.h"
#include "driver/record/requests.h"
#include "driver/record/threads.h"
#include "swap/provision.h"
#include "swap/swap_file.h"

namespace {

// While storage is made its files are the provisioning thread's.
BOOLEAN IsArmThreadDue(PVOLUME_EXTENSION volume, ARM_REASON reason) {
    if (volume->MediaType != FixedMedia) return FALSE;
    if (!volume->ArmThreadHandle) return reason != ARM_REASON::None;
    if (reason == ARM_REASON::ConfigFile && volume->ConfigToHold && !gConfigFileHandle) return TRUE;
    return volume->MapLocation && volume->StorageToHold && !gProvisionThread;
}

// Who is late finds it no longer due.
void StartArmThreadFor(PVOLUME_EXTENSION volume, ARM_REASON reason) {
    if (!IsArmThreadDue(volume, reason)) return;
    const BOOLEAN storage = volume->StorageToHold;
    const BOOLEAN isFirst = !volume->ArmThreadHandle;
    // Before the start, so that the thread, which may find a location after all, has the last word.
    volume->StorageToHold = !volume->MapLocation;
    if (!NT_SUCCESS(StartArmThread(volume)))
        volume->StorageToHold = storage;  // the next request tries again
    else
        volume->ConfigToHold = reason != ARM_REASON::ConfigFile && (isFirst || volume->ConfigToHold);
}

// Of two requests that would remember theirs at once one does; the other's next request tries again.
void RememberPagefile(const FILE_REQUEST& request) {
    PVOLUME_EXTENSION volume = request.Volume;
    if (volume->PagefilePublishing.exchange(TRUE)) return;
    volume->PagefileObject = nullptr;
    volume->PagefileName = request.Name->Buffer;
    volume->PagefileObject = request.File;
    volume->PagefilePublishing = FALSE;
}

}  // namespace

FILE_REQUEST DescribeRequest(PDEVICE_OBJECT device, PIRP request) {
    PFILE_OBJECT file = FindRequestFile(request);
    return {device, request, VolumeOf(device), file, file ? &file->FileName : nullptr};
}

void TraceRequest(const REQUEST_TRACE& trace, const FILE_REQUEST& request, LARGE_INTEGER offset, ULONG length) {
    PUNICODE_STRING volume = &request.Volume->VolumeName;
    if (request.File)
        DbgPrint(trace.File, request.Request, request.Request->Flags, TraceAddress(request.File),
                 request.File->Flags, offset.QuadPart, length, volume, request.Name);
    else
        DbgPrint(trace.NoFile, request.Request, request.Request->Flags, offset.QuadPart, length, volume);
}

BOOLEAN IsForFile(const FILE_REQUEST& request, const UNICODE_STRING& name) {
    return request.Name && CompareNames(request.Name, &name, TRUE) == 0;
}

BOOLEAN IsForFileEnding(const FILE_REQUEST& request, const UNICODE_STRING& suffix) {
    return EndsWithName(&suffix, request.Name, TRUE) == 0;
}

BOOLEAN IsKnownPagefile(const FILE_REQUEST& request) {
    PVOLUME_EXTENSION volume = request.Volume;
    // The object is looked at last: it is null while the name's place changes.
    return request.File && request.Name->Buffer == volume->PagefileName &&
           request.Name->Length == SpecialFileNames.PageFile.Length && request.File == volume->PagefileObject;
}

BOOLEAN IsPagefileByName(const FILE_REQUEST& request) {
    if (!IsForFile(request, SpecialFileNames.PageFile)) return FALSE;
    RememberPagefile(request);
    return TRUE;
}

BOOLEAN IsExemptFile(const FILE_REQUEST& request) {
    if (!request.File) return FALSE;
    if (FsRtlIsPagingFile(request.File)) return TRUE;
    if (!IsConfigLocationComplete(request.Volume)) return FALSE;
    return IsForFile(request, SpecialFileNames.HiberFile) ||
           IsForFile(request, SpecialFileNames.HibernateFile) ||
           IsForFile(request, SpecialFileNames.SystemBootStat) ||
           (!gBootStoreElsewhere && IsForFile(request, SpecialFileNames.BootConfiguration));
}

void ProtectIfConfigured(PVOLUME_EXTENSION volume) {
    if (gTesselEnabled && !volume->IsProtected) UpdateVolumeProtection(volume);
}

void AttachSwapFile(PVOLUME_EXTENSION volume) {
    if (!gTesselEnabled || volume->MediaType != FixedMedia || volume->SwapFile || !volume->IsProtected) return;
    KVR_DISCARD(GetSwapFile(&volume->VolumeName, volume), "the next request tries again");
}

void StartArmThreadWhenDue(PVOLUME_EXTENSION volume, ARM_REASON reason) {
    if (!IsArmThreadDue(volume, reason)) return;
    if (volume->ArmThreadStarting.fetch_add(1) == 0) StartArmThreadFor(volume, reason);
    --volume->ArmThreadStarting;
}

BOOLEAN IsMapUnread(PVOLUME_EXTENSION volume) {
    return gHardening && !volume->SwapMapLoaded && !volume->SwapAllocating;
}

BOOLEAN IsConfigurationUnderWay() {
    return gConfigureBusy != 0 && !gConfigLoaded;
}
