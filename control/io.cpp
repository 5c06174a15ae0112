#include "control/io.h"
#include "config/parser.h"
#include "config/config_files.h"
#include "control/provision_control.h"
#include "control/reports.h"
#include "platform/assert.h"
#include "formats/kvr_ioctl.h"

namespace {

// Where the assertion about the status block says that it stands: a reader of reports knows it by this line.
constexpr ULONG kStatusBlockLine = 56;

NTSTATUS GetConfig(PVOID output, ULONG outputLength, ULONG_PTR* information) {
    if (!output || outputLength != KVR_CONFIG_BYTES) return STATUS_INVALID_PARAMETER;
    ULONG length = KVR_CONFIG_BYTES;
    NTSTATUS status = ReadConfig(output, &length);
    *information = length;
    return status;
}

NTSTATUS SetConfig(PVOID input, ULONG inputLength) {
    if (!input || inputLength != KVR_CONFIG_BYTES) return STATUS_INVALID_PARAMETER;
    return WriteConfig(input, KVR_CONFIG_BYTES);
}

NTSTATUS GetEnabled(PVOID output, ULONG outputLength, ULONG_PTR* information) {
    const ULONG enabled = gTesselEnabled ? 1 : 0;
    if (!output || outputLength != sizeof(enabled)) return STATUS_INVALID_PARAMETER;
    RtlCopyMemory(output, &enabled, sizeof(enabled));
    *information = sizeof(enabled);
    return STATUS_SUCCESS;
}

using VOLUME_REPORT = NTSTATUS (*)(PVOID, ULONG, ULONG_PTR*);

NTSTATUS GetVolumes(VOLUME_REPORT report, PVOID output, ULONG outputLength, ULONG_PTR* information) {
    if (!output || outputLength == 0) return STATUS_INVALID_PARAMETER;
    return report(output, outputLength, information);
}

// The requests that fill the caller's buffer.
NTSTATUS AnswerQuery(ULONG code, PVOID output, ULONG outputLength, ULONG_PTR* information) {
    switch (code) {
        case IOCTL_KVR_GET_CONFIG:
            return GetConfig(output, outputLength, information);
        case IOCTL_KVR_GET_REMOVABLE_VOLUMES:
            return GetVolumes(ReportRemovableVolumes, output, outputLength, information);
        case IOCTL_KVR_GET_FIXED_VOLUMES:
            return GetVolumes(ReportFixedVolumes, output, outputLength, information);
        default:
            return GetEnabled(output, outputLength, information);
    }
}

NTSTATUS AnswerRequest(ULONG code, PVOID input, ULONG inputLength, PVOID output, ULONG outputLength,
                       ULONG_PTR* information) {
    switch (code) {
        case IOCTL_KVR_GET_CONFIG:
        case IOCTL_KVR_GET_REMOVABLE_VOLUMES:
        case IOCTL_KVR_GET_FIXED_VOLUMES:
        case IOCTL_KVR_GET_ENABLED:
            return TryExcept([&] { return AnswerQuery(code, output, outputLength, information); });
        case IOCTL_KVR_SET_CONFIG:
            return SetConfig(input, inputLength);
        case IOCTL_KVR_DEBUG:
            KvrDebug();
            return STATUS_SUCCESS;
        case IOCTL_KVR_ALLOCATE_SWAP:
            return StartSwapAllocation(input, inputLength);
        case IOCTL_KVR_STOP_SWAP_THREAD:
            return StopSwapThread();
        case IOCTL_KVR_REMOVE_SWAP:
            return RunSwapRemoval(input, inputLength);
        default:
            return STATUS_INVALID_PARAMETER;
    }
}

}  // namespace

NTSTATUS ControlDeviceIoControl(PDEVICE_OBJECT device, PVOID input, ULONG inputLength, PVOID output,
                                ULONG outputLength, ULONG code, PIO_STATUS_BLOCK IoStatus) {
    UNREFERENCED_PARAMETER(device);
    KVR_ASSERT_AT(kIoSource, kStatusBlockLine, IoStatus != NULL);
    IO_STATUS_BLOCK spare;
    PIO_STATUS_BLOCK result = IoStatus ? IoStatus : &spare;
    result->Information = 0;
    result->Status = AnswerRequest(code, input, inputLength, output, outputLength, &result->Information);
    return result->Status;
}

void KvrDebug() {
    DbgPrint("Kvr!KvrDebug {\n");
    DbgPrint("Kvr!KvrDebug }\n");
}
