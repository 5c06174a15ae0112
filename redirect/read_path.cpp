// Reads: those of a protected volume see its redirected writes; the first ones after boot bring the driver to
// life, since they come before any file system could be used.
#include "config/parser.h"
#include "config/config_location.h"
#include "config/protected_volumes.h"
#include "config/storage.h"
#include "driver/record/hardening.h"
#include "driver/record/requests.h"
#include "redirect/redirect.h"
#include "redirect/request_io.h"
#include "redirect/request_path.h"
#include "swap/map_boot.h"

namespace {

constexpr REQUEST_TRACE kReadTrace = {
    "Kvr!Read(%p:0x%08x): file 0x%08x, Flags: 0x%08x at %I64x %d bytes [%wZ:%wZ]\n",
    "Kvr!Read(%p:0x%08x): at %I64x %d bytes [%wZ]\n"};

void TraceRead(const FILE_REQUEST& read) {
    const auto& place = IoGetCurrentIrpStackLocation(read.Request)->Parameters.Read;
    TraceRequest(kReadTrace, read, place.ByteOffset, place.Length);
}

NTSTATUS ReadDisk(PDEVICE_OBJECT device, PIRP request) {
    const FILE_REQUEST read = DescribeRequest(device, request);
    if (!read.Volume->SuppressReadTrace) TraceRead(read);
    return PassIrpDown(device, request);
}

// Exactly one of the requests that come at once loads the configuration; the others go on without it. Who was
// late to look at gConfigLoaded must not load a second time over what the parser has changed.
void LoadConfigOnce(const FILE_REQUEST& read) {
    if (gConfigLoaded || !IsConfigLocationComplete(read.Volume)) return;
    if (++gConfigureBusy == 1 && !gConfigLoaded) gConfigLoaded = KvrConfigure(read.Device) == STATUS_SUCCESS;
    --gConfigureBusy;
}

void TraceProtectedRead(const FILE_REQUEST& read) {
    if (read.Volume->SuppressReadTrace || !read.Volume->IsProtected) return;
    if (read.File || gTesselEnabled) TraceRead(read);
}

// Until the volume's own conditions for writes hold, its thread is started where no configuration lies, and
// where a protected one does: no program may be faster than the driver at its own files.
ARM_REASON ReasonToArm(PVOLUME_EXTENSION volume) {
    return volume->PreloadConfigLocation[0] == 0 || volume->IsProtected ? ARM_REASON::First : ARM_REASON::None;
}

// Files that are never redirected, and the driver's own storage.
BOOLEAN BelongsOnVolume(const FILE_REQUEST& read) {
    if (gHardening) return IsExemptFile(read);
    if (IsKnownPagefile(read)) return TRUE;
    if (!read.Volume->SwapFile || !read.File) return FALSE;
    return IsPagefileByName(read) || IsSwapFileName(read.Name) || IsForFile(read, SpecialFileNames.MapFile) ||
           IsForFile(read, SpecialFileNames.HiberFile) || IsForFile(read, SpecialFileNames.HibernateFile);
}

BOOLEAN IsRedirecting(PVOLUME_EXTENSION volume) {
    return gTesselEnabled && volume->IsProtected && (volume->SwapMapLoaded || volume->SwapFile);
}

NTSTATUS ReadRedirected(const FILE_REQUEST& read) {
    PVOLUME_EXTENSION volume = read.Volume;
    const NTSTATUS status = ReadSegments(volume, read.Request);
    // The medium was changed: what was redirected belonged to the old one.
    if (status == STATUS_VERIFY_REQUIRED && volume->MediaType != FixedMedia) DiscardSwappedChunks(volume);
    return status;
}

// A map that cannot be read yet may redirect what the volume holds: who saw that would take an older state for
// the present one, and later mix both. What the device answers is told all the same: it may want to be
// unlocked.
NTSTATUS ReadWithoutMap(const FILE_REQUEST& read) {
    const NTSTATUS status = ForwardIrpSynchronously(read.Device, read.Request);
    if (NT_SUCCESS(status)) return CompleteRequest(read.Request, STATUS_DEVICE_NOT_READY);
    return CompleteForwarded(read.Request, status);
}

NTSTATUS ReadVolume(PDEVICE_OBJECT device, PIRP request) {
    const FILE_REQUEST read = DescribeRequest(device, request);
    PVOLUME_EXTENSION volume = read.Volume;
    LoadConfigOnce(read);
    ProtectIfConfigured(volume);
    EnsureSwapMapLoaded(volume);
    TraceProtectedRead(read);
    AttachSwapFile(volume);
    StartArmThreadWhenDue(volume, ReasonToArm(volume));
    if (!IsRedirecting(volume) || BelongsOnVolume(read) || IsConfigurationUnderWay())
        return PassIrpDown(device, request);
    // Another request may have finished the configuration since the map was looked for above.
    EnsureSwapMapLoaded(volume);
    if (IsMapUnread(volume) && !(volume->BootAction & PV_ACTION_DISCARD)) return ReadWithoutMap(read);
    return ReadRedirected(read);
}

}  // namespace

NTSTATUS KvrRead(PDEVICE_OBJECT device, PIRP request) {
    if (device == gControlDevice) return KvrDefaultDispatch(device, request);
    PVOLUME_EXTENSION volume = VolumeOf(device);
    const RecordHold hold(volume, request);
    if (hold.Failed()) return CompleteRequest(request, STATUS_DELETE_PENDING);
    if (!IsVolumeInList(volume)) return PassIrpDown(device, request);
    return volume->IsDisk ? ReadDisk(device, request) : ReadVolume(device, request);
}
