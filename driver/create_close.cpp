// Opening and closing.
#include "driver/create_close.h"
#include "driver/record/requests.h"
#include "platform/owners.h"

namespace {

// Who asks: the client that a server acts for, unless it may only know its name, else the process itself. Null:
// the one who asks cannot be told.
PACCESS_TOKEN TokenOf(const SECURITY_SUBJECT_CONTEXT& subject) {
    if (!subject.ClientToken) return subject.PrimaryToken;
    return subject.ImpersonationLevel >= SecurityImpersonation ? subject.ClientToken : nullptr;
}

// The device protects what nobody but an administrator may change, yet a device is made open to everybody. From
// user mode it is for those who hold the administrators' group, as the system itself does; an administrator who
// was not asked to confirm does not hold it. A kernel that tells nothing of the one who asks has no users.
BOOLEAN MayOpenControlDevice(PIRP request) {
    const IO_STACK_LOCATION* location = IoGetCurrentIrpStackLocation(request);
    if (request->RequestorMode == KernelMode && !(location->Flags & SL_FORCE_ACCESS_CHECK)) return TRUE;
    const IO_SECURITY_CONTEXT* context = location->Parameters.Create.SecurityContext;
    if (!context || !context->AccessState) return TRUE;
    PACCESS_TOKEN token = TokenOf(context->AccessState->SubjectSecurityContext);
    return token && SeTokenIsAdmin(token);
}

// One handle at a time: the tool's requests never meet those of a second tool.
BOOLEAN TakeControlDevice() {
    SpinLockGuard lock(gControlLock);
    if (gControlOpen) return FALSE;
    gControlOpen = TRUE;
    return TRUE;
}

void GiveControlDeviceBack() {
    SpinLockGuard lock(gControlLock);
    gControlOpen = FALSE;
}

}  // namespace

// A filter answers for itself: what opens the volume reaches the file system above, not the devices below.
NTSTATUS KvrCreate(PDEVICE_OBJECT device, PIRP request) {
    if (device != gControlDevice) return CompleteRequest(request, STATUS_SUCCESS);
    if (!MayOpenControlDevice(request)) return CompleteRequest(request, STATUS_ACCESS_DENIED);
    if (!TakeControlDevice()) return CompleteRequest(request, STATUS_DEVICE_ALREADY_ATTACHED);
    return CompleteRequest(request, STATUS_SUCCESS, FILE_OPENED);
}

NTSTATUS KvrClose(PDEVICE_OBJECT device, PIRP request) {
    if (device != gControlDevice) return HoldAndPassDown(device, request);
    GiveControlDeviceBack();
    return CompleteRequest(request, STATUS_SUCCESS);
}
