#include "tests/second_kernel/common/tool.h"
#include "tests/second_kernel/common/memory.h"
#include "tests/second_kernel/common/threads.h"
#include "tests/second_kernel/stage.h"

namespace {

constexpr ULONG kMostRecords = 16;
constexpr ULONG kProvisioning = 1;

ULONG TextBytes(const WCHAR* text) {
    UNICODE_STRING counted;
    RtlInitUnicodeString(&counted, text);
    return counted.Length;
}

bool IsNamed(const std::uint16_t (&name)[KVR_NAME_CHARS], const WCHAR* wanted) {
    const ULONG bytes = TextBytes(wanted) + sizeof(WCHAR);
    return IsSame(reinterpret_cast<const UCHAR*>(name), reinterpret_cast<const UCHAR*>(wanted), bytes);
}

template <class Record>
Record FindRecord(Tool* tool, ULONG code, const WCHAR* volume) {
    const Bytes records(kMostRecords * sizeof(Record));
    Record record{};
    if (!records) return record;
    const Reply reply = Ask(tool, code, nullptr, 0, records.Get(), kMostRecords * sizeof(Record));
    stage::CheckStatus(reply.Status, STATUS_SUCCESS, "the volumes' records");
    for (ULONG_PTR at = 0; at + sizeof(Record) <= reply.Information; at += sizeof(Record)) {
        RtlCopyMemory(&record, records.Get() + at, sizeof(record));
        if (IsNamed(record.VolumeName, volume)) return record;
    }
    stage::Check(false, "the volume has a record", reply.Information / sizeof(Record));
    return Record{};
}

}  // namespace

NTSTATUS OpenTool(Tool* tool, PDEVICE_OBJECT control) {
    tool->Device = control;
    InitializeFile(&tool->File, control, W(""));
    return SendSimple(control, IRP_MJ_CREATE, &tool->File).Status;
}

void CloseTool(Tool* tool) {
    stage::CheckStatus(SendSimple(tool->Device, IRP_MJ_CLEANUP, &tool->File).Status, STATUS_SUCCESS,
                       "cleanup of the control device");
    stage::CheckStatus(SendSimple(tool->Device, IRP_MJ_CLOSE, &tool->File).Status, STATUS_SUCCESS,
                       "close of the control device");
}

Reply Ask(Tool* tool, ULONG code, const void* input, ULONG inputLength, PVOID output, ULONG outputLength) {
    return SendControl(tool->Device, {code, input, inputLength, output, outputLength, &tool->File});
}

NTSTATUS SetConfig(Tool* tool, const WCHAR* text) {
    const Bytes image(KVR_CONFIG_BYTES);
    if (!image) return STATUS_INSUFFICIENT_RESOURCES;
    RtlCopyMemory(image.Get(), text, TextBytes(text));
    return Ask(tool, IOCTL_KVR_SET_CONFIG, image.Get(), KVR_CONFIG_BYTES).Status;
}

bool IsConfig(Tool* tool, const WCHAR* text) {
    const Bytes wanted(KVR_CONFIG_BYTES);
    const Bytes image(KVR_CONFIG_BYTES);
    if (!image || !wanted) return false;
    RtlCopyMemory(wanted.Get(), text, TextBytes(text));
    const Reply reply = Ask(tool, IOCTL_KVR_GET_CONFIG, nullptr, 0, image.Get(), KVR_CONFIG_BYTES);
    return stage::CheckStatus(reply.Status, STATUS_SUCCESS, "the configuration is read") &&
           stage::CheckEqual(reply.Information, KVR_CONFIG_BYTES, "bytes of the configuration") &&
           IsSame(image.Get(), wanted.Get(), KVR_CONFIG_BYTES);
}

bool IsEnabled(Tool* tool) {
    ULONG enabled = 2;
    const Reply reply = Ask(tool, IOCTL_KVR_GET_ENABLED, nullptr, 0, &enabled, sizeof(enabled));
    stage::CheckStatus(reply.Status, STATUS_SUCCESS, "whether protection is on");
    stage::CheckEqual(reply.Information, sizeof(enabled), "bytes of the switch");
    stage::Check(enabled <= 1, "the switch is 0 or 1", enabled);
    return enabled == 1;
}

KVR_FIXED_VOLUME_STATUS FixedStatus(Tool* tool, const WCHAR* volume) {
    return FindRecord<KVR_FIXED_VOLUME_STATUS>(tool, IOCTL_KVR_GET_FIXED_VOLUMES, volume);
}

KVR_REMOVABLE_VOLUME_STATUS RemovableStatus(Tool* tool, const WCHAR* volume) {
    return FindRecord<KVR_REMOVABLE_VOLUME_STATUS>(tool, IOCTL_KVR_GET_REMOVABLE_VOLUMES, volume);
}

SWAP_CONFIG_REQUEST StorageRequest(const WCHAR* volume, LONGLONG bytes) {
    SWAP_CONFIG_REQUEST request{};
    RtlCopyMemory(request.VolumeName, volume, TextBytes(volume));
    request.SwapSize = bytes;
    return request;
}

NTSTATUS StartStorage(Tool* tool, const WCHAR* volume, LONGLONG bytes) {
    const SWAP_CONFIG_REQUEST request = StorageRequest(volume, bytes);
    return Ask(tool, IOCTL_KVR_ALLOCATE_SWAP, &request, sizeof(request)).Status;
}

KVR_FIXED_VOLUME_STATUS WaitForStorage(Tool* tool, const WCHAR* volume) {
    KVR_FIXED_VOLUME_STATUS status = FixedStatus(tool, volume);
    for (ULONG i = 0; i < 6000 && status.SwapStatus == kProvisioning; ++i) {
        Sleep(10);
        status = FixedStatus(tool, volume);
    }
    stage::Check(status.SwapStatus != kProvisioning, "provisioning ends");
    return status;
}
