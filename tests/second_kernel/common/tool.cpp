#include "tests/second_kernel/common/tool.h"
#include <algorithm>
#include <chrono>
#include <thread>
#include "tests/second_kernel/common/pattern.h"
#include "tests/second_kernel/stage.h"
#include "tests/support/driver_records.h"

namespace {

constexpr ULONG kMostRecords = 16;
constexpr ULONG kProvisioning = 1;

template <class Record>
Record FindRecord(Tool* tool, ULONG code, std::u16string_view volume) {
    Record records[kMostRecords];
    const host::Outcome reply = Ask(tool, code, nullptr, 0, records, sizeof(records));
    stage::CheckStatus(reply.status, STATUS_SUCCESS, "the volumes' records");
    Record* const end = records + reply.information / sizeof(Record);
    Record* const found = std::find_if(records, end, [&](const Record& record) {
        return std::equal(volume.begin(), volume.end(), record.VolumeName) &&
               record.VolumeName[volume.size()] == 0;
    });
    return stage::Check(found != end, "the volume has a record") ? *found : Record{};
}

}  // namespace

NTSTATUS OpenTool(Tool* tool, PDEVICE_OBJECT control) {
    tool->Device = control;
    InitializeFile(&tool->File, control, W(""));
    return SendSimple(control, IRP_MJ_CREATE, &tool->File);
}

void CloseTool(Tool* tool) {
    for (const UCHAR major : {IRP_MJ_CLEANUP, IRP_MJ_CLOSE})
        stage::CheckStatus(SendSimple(tool->Device, major, &tool->File), STATUS_SUCCESS,
                           "cleanup and close of the control device");
}

host::Outcome Ask(Tool* tool, ULONG code, const void* input, ULONG inputLength, PVOID output,
                  ULONG outputLength) {
    return host::SendControl(tool->Device, {code, input, inputLength, output, outputLength, &tool->File});
}

NTSTATUS SetConfig(Tool* tool, std::u16string_view text) {
    return Ask(tool, IOCTL_KVR_SET_CONFIG, support::ConfigRecord(text).data(), KVR_CONFIG_BYTES).status;
}

bool IsConfig(Tool* tool, std::u16string_view text) {
    Bytes image(KVR_CONFIG_BYTES);
    const host::Outcome reply = Ask(tool, IOCTL_KVR_GET_CONFIG, nullptr, 0, image.data(), KVR_CONFIG_BYTES);
    return stage::CheckStatus(reply.status, STATUS_SUCCESS, "the configuration is read") &&
           stage::CheckEqual(reply.information, KVR_CONFIG_BYTES, "bytes of the configuration") &&
           image == support::ConfigRecord(text);
}

bool IsEnabled(Tool* tool) {
    ULONG enabled = 2;
    const host::Outcome reply = Ask(tool, IOCTL_KVR_GET_ENABLED, nullptr, 0, &enabled, sizeof(enabled));
    stage::CheckStatus(reply.status, STATUS_SUCCESS, "whether protection is on");
    stage::CheckEqual(reply.information, sizeof(enabled), "bytes of the switch");
    stage::Check(enabled <= 1, "the switch is 0 or 1", enabled);
    return enabled == 1;
}

KVR_FIXED_VOLUME_STATUS FixedStatus(Tool* tool, std::u16string_view volume) {
    return FindRecord<KVR_FIXED_VOLUME_STATUS>(tool, IOCTL_KVR_GET_FIXED_VOLUMES, volume);
}

KVR_REMOVABLE_VOLUME_STATUS RemovableStatus(Tool* tool, std::u16string_view volume) {
    return FindRecord<KVR_REMOVABLE_VOLUME_STATUS>(tool, IOCTL_KVR_GET_REMOVABLE_VOLUMES, volume);
}

NTSTATUS StartStorage(Tool* tool, std::u16string_view volume, LONGLONG bytes) {
    const SWAP_CONFIG_REQUEST request = support::StorageRequest(volume, bytes);
    return Ask(tool, IOCTL_KVR_ALLOCATE_SWAP, &request, sizeof(request)).status;
}

KVR_FIXED_VOLUME_STATUS WaitForStorage(Tool* tool, std::u16string_view volume) {
    KVR_FIXED_VOLUME_STATUS status = FixedStatus(tool, volume);
    for (ULONG i = 0; i < 6000 && status.SwapStatus == kProvisioning; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        status = FixedStatus(tool, volume);
    }
    stage::Check(status.SwapStatus != kProvisioning, "provisioning ends");
    return status;
}
