#include "driver/record/registry.h"

namespace {

constexpr ULONG kDataOffset = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);

// The size of the value's information as the registry reports it.
NTSTATUS QueryInformationSize(HANDLE key, PUNICODE_STRING name, ULONG* size) {
    const NTSTATUS status = ZwQueryValueKey(key, name, KeyValuePartialInformation, nullptr, 0, size);
    if (status == STATUS_BUFFER_OVERFLOW || status == STATUS_BUFFER_TOO_SMALL) return STATUS_SUCCESS;
    return NT_SUCCESS(status) ? STATUS_INVALID_PARAMETER : status;
}

// How many bytes of data an information block of `returned` bytes truly holds.
ULONG DataBytes(const UCHAR* information, ULONG returned) {
    if (returned <= kDataOffset) return 0;
    ULONG claimed = 0;
    RtlCopyMemory(&claimed, information + FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, DataLength),
                  sizeof(claimed));
    const ULONG held = returned - kDataOffset;
    return claimed < held ? claimed : held;
}

NTSTATUS OpenKey(PCWSTR text, ACCESS_MASK access, KernelHandle* key) {
    UNICODE_STRING path;
    RtlInitUnicodeString(&path, text);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE handle = nullptr;
    const NTSTATUS status =
        ZwCreateKey(&handle, access, &attributes, 0, nullptr, REG_OPTION_NON_VOLATILE, nullptr);
    key->Reset(NT_SUCCESS(status) ? handle : nullptr);
    return status;
}

NTSTATUS ReadValue(const KernelHandle& key, PUNICODE_STRING name, PoolPtr<UCHAR>* data, ULONG* length) {
    ULONG size = 0;
    const NTSTATUS asked = QueryInformationSize(key.Get(), name, &size);
    if (!NT_SUCCESS(asked)) return asked;
    if (size <= kDataOffset) return STATUS_INVALID_PARAMETER;
    PoolPtr<UCHAR> information = NewBuffer(size);
    if (!information) return STATUS_INSUFFICIENT_RESOURCES;
    // Another writer may have changed the value since its size was asked for: what came back is what counts.
    ULONG returned = 0;
    const NTSTATUS status =
        ZwQueryValueKey(key.Get(), name, KeyValuePartialInformation, information.Get(), size, &returned);
    if (!NT_SUCCESS(status)) return status;
    const ULONG bytes = DataBytes(information.Get(), returned < size ? returned : size);
    if (bytes == 0) return STATUS_INVALID_PARAMETER;
    RtlMoveMemory(information.Get(), information.Get() + kDataOffset, bytes);
    *data = std::move(information);
    *length = bytes;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS OpenDriverKey(ACCESS_MASK access, KernelHandle* key) {
    return OpenKey(W("\\Registry\\Machine\\System\\kvr"), access, key);
}

NTSTATUS ReadDriverValue(PUNICODE_STRING name, PoolPtr<UCHAR>* data, ULONG* length) {
    *length = 0;
    KernelHandle key;
    const NTSTATUS status = OpenDriverKey(KEY_QUERY_VALUE, &key);
    return NT_SUCCESS(status) ? ReadValue(key, name, data, length) : status;
}

NTSTATUS ReadSystemValue(PCWSTR text, PoolPtr<UCHAR>* data, ULONG* length) {
    *length = 0;
    KernelHandle key;
    const NTSTATUS status =
        OpenKey(W("\\Registry\\Machine\\System\\CurrentControlSet\\Control"), KEY_QUERY_VALUE, &key);
    if (!NT_SUCCESS(status)) return status;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, text);
    return ReadValue(key, &name, data, length);
}

BOOLEAN IsValueAbsent(NTSTATUS status) {
    return status == STATUS_OBJECT_NAME_NOT_FOUND || status == STATUS_OBJECT_PATH_NOT_FOUND ||
           status == STATUS_INVALID_PARAMETER;
}

NTSTATUS ReadDriverSwitch(PCWSTR text, BOOLEAN* on) {
    *on = FALSE;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, text);
    PoolPtr<UCHAR> data;
    ULONG length = 0;
    ULONG value = 0;
    const NTSTATUS status = ReadDriverValue(&name, &data, &length);
    if (!NT_SUCCESS(status)) return IsValueAbsent(status) ? STATUS_SUCCESS : status;
    if (length < sizeof(value)) return STATUS_SUCCESS;
    RtlCopyMemory(&value, data.Get(), sizeof(value));
    *on = value != 0;
    return STATUS_SUCCESS;
}

NTSTATUS WriteDriverValue(PUNICODE_STRING name, const void* data, ULONG length, BOOLEAN flush) {
    KernelHandle key;
    const NTSTATUS opened = OpenDriverKey(KEY_QUERY_VALUE | KEY_SET_VALUE, &key);
    if (!NT_SUCCESS(opened)) return opened;
    const NTSTATUS status = ZwSetValueKey(key.Get(), name, 0, REG_BINARY, const_cast<PVOID>(data), length);
    if (flush) KVR_DISCARD(ZwFlushKey(key.Get()), "the value is set; the system's own flush follows anyway");
    return status;
}
