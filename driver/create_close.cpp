// Opening and closing.
#include "driver/create_close.h"
#include "driver/record/requests.h"
#include "platform/owners.h"

namespace {

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
    if (!TakeControlDevice()) return CompleteRequest(request, STATUS_DEVICE_ALREADY_ATTACHED);
    return CompleteRequest(request, STATUS_SUCCESS, FILE_OPENED);
}

NTSTATUS KvrClose(PDEVICE_OBJECT device, PIRP request) {
    if (device != gControlDevice) return HoldAndPassDown(device, request);
    GiveControlDeviceBack();
    return CompleteRequest(request, STATUS_SUCCESS);
}
