// Loading the driver under test, and the driver object of the story's own devices.
#include "shim.h"
#include "tests/second_kernel/stage.h"

extern "C" {
// The headers know neither; the second is the type object itself.
NTSTATUS NTAPI IoCreateDriver(PUNICODE_STRING name, PDRIVER_INITIALIZE initialize);
extern __declspec(dllimport) POBJECT_TYPE IoDriverObjectType;
}

namespace {

PDRIVER_OBJECT gOwnDriver;

NTSTATUS NTAPI KeepDriver(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    gOwnDriver = driver;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS stage::LoadDriver(PDRIVER_OBJECT& driver) {
    driver = nullptr;
    UNICODE_STRING service, name;
    RtlInitUnicodeString(&service, L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\kvr");
    NTSTATUS status = ZwLoadDriver(&service);
    if (!NT_SUCCESS(status)) return status;
    RtlInitUnicodeString(&name, L"\\Driver\\kvr");
    PVOID object = nullptr;
    status = ObReferenceObjectByName(&name, OBJ_CASE_INSENSITIVE, nullptr, 0, IoDriverObjectType, KernelMode,
                                     nullptr, &object);
    if (!NT_SUCCESS(status)) return status;
    driver = static_cast<PDRIVER_OBJECT>(object);
    ObDereferenceObject(object);
    (void)Check(shim::IsDriverCode(reinterpret_cast<PVOID>(driver->MajorFunction[IRP_MJ_READ])),
                "the driver's imports were replaced");
    return status;
}

PDRIVER_OBJECT stage::OwnDriver() {
    if (gOwnDriver) return gOwnDriver;
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Driver\\kvrdevices");
    (void)CheckStatus(IoCreateDriver(&name, KeepDriver), STATUS_SUCCESS, "a driver for the story's devices");
    return gOwnDriver;
}

NTSTATUS stage::AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
    return driver->DriverExtension->AddDevice(driver, pdo);
}

// Permanent, so that it stays when its handle is closed.
void stage::MakeDirectory(const WCHAR* path) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_PERMANENT | OBJ_KERNEL_HANDLE,
                               nullptr, nullptr);
    HANDLE directory = nullptr;
    const NTSTATUS status = ZwCreateDirectoryObject(&directory, DIRECTORY_ALL_ACCESS, &attributes);
    if (status == STATUS_OBJECT_NAME_COLLISION) return;
    if (CheckStatus(status, STATUS_SUCCESS, "a directory for devices' names")) (void)ZwClose(directory);
}
