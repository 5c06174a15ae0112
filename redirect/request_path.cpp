#include "redirect/request_path.h"
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "config/storage.h"
#include "driver/record/requests.h"
#include "swap/provision.h"
#include "swap/swap_file.h"

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
    return request.File && request.File == request.Volume->PagefileObject;
}

BOOLEAN IsPagefileByName(const FILE_REQUEST& request) {
    if (!IsForFile(request, SpecialFileNames.PageFile)) return FALSE;
    request.Volume->PagefileObject = request.File;
    return TRUE;
}

void ProtectIfConfigured(PVOLUME_EXTENSION volume) {
    if (gTesselEnabled && !volume->IsProtected) UpdateVolumeProtection(volume);
}

void AttachSwapFile(PVOLUME_EXTENSION volume) {
    if (!gTesselEnabled || volume->MediaType != FixedMedia || volume->SwapFile || !volume->IsProtected) return;
    KVR_DISCARD(GetSwapFile(&volume->VolumeName, volume), "the next request tries again");
}

void StartArmThreadOnce(PVOLUME_EXTENSION volume) {
    if (volume->ArmThreadStarting.fetch_add(1) == 0 && !volume->ArmThreadHandle)
        KVR_DISCARD(StartArmThread(volume), "the next request tries again");
    --volume->ArmThreadStarting;
}

BOOLEAN IsConfigurationUnderWay() {
    return gConfigureBusy != 0 && !gConfigLoaded;
}
