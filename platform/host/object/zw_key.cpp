#include <algorithm>
#include "platform/host/sync/host_lock.h"
#include "platform/host/check/injector.h"
#include "platform/host/object/namespace.h"
#include "platform/host/object/object.h"
#include "platform/host/object/registry_store.h"
#include "platform/host/check/host_memory.h"
#include "platform/host/check/verifier.h"

namespace host {
namespace {

// The store's calls are made one at a time.
HostLock gLock;
RegistryStore* gStore KVR_GUARDED_BY(gLock) = nullptr;

struct KeyObject {
    std::u16string path;
};

// Runs `call` on the store with the key's path. The store may be gone while a key is still open.
template <class Call>
NTSTATUS WithKey(HANDLE handle, const char* routine, const Call& call) {
    RequirePageable(routine, PASSIVE_LEVEL);
    ObjectRef<KeyObject> key(static_cast<KeyObject*>(LookupHandle(handle, ObjectType::Key)));
    if (!key) return STATUS_INVALID_HANDLE;
    if (InjectFault(Fault::Registry)) return STATUS_INSUFFICIENT_RESOURCES;
    const HostGuard guard(gLock);
    if (gStore == nullptr) return STATUS_OBJECT_PATH_NOT_FOUND;
    RegistryStore& store = *gStore;
    return WithinMemory([&] { return call(store, key->path); });
}

std::u16string Name(PCUNICODE_STRING name) {
    return std::u16string(View(name));
}

NTSTATUS OpenKey(std::u16string path, HANDLE& handle) {
    {
        const HostGuard guard(gLock);
        if (gStore == nullptr) return STATUS_OBJECT_PATH_NOT_FOUND;
        const NTSTATUS status = gStore->CreateKey(path);
        if (!NT_SUCCESS(status)) return status;
    }
    ObjectRef<KeyObject> key(MakeObject<KeyObject>(ObjectType::Key, std::move(path)));
    handle = InsertHandle(key.get());
    return STATUS_SUCCESS;
}

// The fixed part must fit or nothing is written; of the data as much as fits is copied.
NTSTATUS CopyPartial(const RegistryValue& value, PVOID info, ULONG length, PULONG resultLength) {
    constexpr ULONG kFixed = offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data);
    const auto dataLength = static_cast<ULONG>(value.data.size());
    *resultLength = kFixed + dataLength;
    if (length < kFixed) return STATUS_BUFFER_TOO_SMALL;
    auto* partial = static_cast<PKEY_VALUE_PARTIAL_INFORMATION>(info);
    partial->TitleIndex = 0;
    partial->Type = value.type;
    partial->DataLength = dataLength;
    const ULONG fits = std::min(dataLength, length - kFixed);
    if (fits != 0) RtlCopyMemory(partial->Data, value.data.data(), fits);
    return fits < dataLength ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

}  // namespace

void SetRegistryStore(RegistryStore* store) {
    const HostGuard guard(gLock);
    gStore = store;
}

}  // namespace host

using host::RegistryStore;
using host::RegistryValue;

NTSTATUS ZwCreateKey(PHANDLE handle, ACCESS_MASK, POBJECT_ATTRIBUTES attributes, ULONG, PUNICODE_STRING, ULONG,
                     PULONG disposition) {
    host::RequirePageable("ZwCreateKey", PASSIVE_LEVEL);
    if (attributes->RootDirectory != nullptr || attributes->ObjectName == nullptr)
        return STATUS_INVALID_PARAMETER;
    if (host::InjectFault(host::Fault::Registry)) return STATUS_INSUFFICIENT_RESOURCES;
    if (disposition != nullptr) *disposition = REG_OPENED_EXISTING_KEY;
    return host::WithinMemory([&] { return host::OpenKey(host::Name(attributes->ObjectName), *handle); });
}

NTSTATUS ZwQueryValueKey(HANDLE key, PUNICODE_STRING name, KEY_VALUE_INFORMATION_CLASS kind, PVOID info,
                         ULONG length, PULONG resultLength) {
    if (kind != KeyValuePartialInformation) return STATUS_INVALID_PARAMETER;
    RegistryValue value{};
    const NTSTATUS status =
        host::WithKey(key, "ZwQueryValueKey", [&](RegistryStore& store, const std::u16string& path) {
            return store.Query(path, host::Name(name), value);
        });
    return NT_SUCCESS(status) ? host::CopyPartial(value, info, length, resultLength) : status;
}

NTSTATUS ZwSetValueKey(HANDLE key, PUNICODE_STRING name, ULONG, ULONG type, PVOID data, ULONG length) {
    const auto* bytes = static_cast<const UCHAR*>(data);
    return host::WithKey(key, "ZwSetValueKey", [&](RegistryStore& store, const std::u16string& path) {
        return store.Set(path, host::Name(name), {type, std::vector<UCHAR>(bytes, bytes + length)});
    });
}

NTSTATUS ZwDeleteValueKey(HANDLE key, PUNICODE_STRING name) {
    return host::WithKey(key, "ZwDeleteValueKey", [&](RegistryStore& store, const std::u16string& path) {
        return store.Delete(path, host::Name(name));
    });
}

NTSTATUS ZwFlushKey(HANDLE key) {
    return host::WithKey(key, "ZwFlushKey",
                         [](RegistryStore& store, const std::u16string&) { return store.Flush(); });
}
