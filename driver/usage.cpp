#include "driver/usage.h"
#include "driver/record/requests.h"
#include "platform/owners.h"

namespace {

// A device that needs its power at once is never pageable, whatever is on it.
void MakePageable(PDEVICE_OBJECT filter) {
    if (!(filter->Flags & DO_POWER_INRUSH)) filter->Flags |= DO_POWER_PAGABLE;
}

void MakeResident(PDEVICE_OBJECT filter) {
    filter->Flags &= ~static_cast<ULONG>(DO_POWER_PAGABLE);
}

// A filter stays at least as resident as the device below it: it gives residency up first, since the lower
// device may do so in the course of the request, and takes it only when the lower devices have.
NTSTATUS CountPagingFile(PVOLUME_EXTENSION volume, PIRP request, BOOLEAN comes) {
    KernelMutexLock lock(volume->UsageMutex);
    PDEVICE_OBJECT filter = volume->FilterDevice;
    const bool last = !comes && volume->PagingFiles == 1;
    const ULONG before = filter->Flags;
    if (last) MakePageable(filter);
    const NTSTATUS status = ForwardIrpSynchronously(filter, request);
    if (!NT_SUCCESS(status)) {
        if (last && !(before & DO_POWER_PAGABLE)) MakeResident(filter);
        return status;
    }
    if (comes && volume->PagingFiles++ == 0) MakeResident(filter);
    if (!comes && volume->PagingFiles != 0) --volume->PagingFiles;
    return status;
}

}  // namespace

NTSTATUS NotifyUsage(PDEVICE_OBJECT device, PIRP request) {
    PVOLUME_EXTENSION volume = VolumeOf(device);
    const auto& usage = IoGetCurrentIrpStackLocation(request)->Parameters.UsageNotification;
    if (usage.Type != DeviceUsageTypePaging) return PassIrpDown(device, request);
    if (volume->MediaType == 0) return CompleteRequest(request, STATUS_DEVICE_NOT_READY);
    return CompleteForwarded(request, CountPagingFile(volume, request, usage.InPath));
}
