// kvrgate.sys: a driver of Wine's kernel that has the host kernel and kvr64.sys in it. Its device has the name
// that programs know, and what they ask of it goes on to the driver's own.
#include "tests/second_kernel/wine/gate.h"
extern "C" {
#include <ntddk.h>
}

namespace {

NTSTATUS Complete(PIRP request, NTSTATUS status, ULONG_PTR information) {
    request->IoStatus.Status = status;
    request->IoStatus.Information = information;
    IoCompleteRequest(request, IO_NO_INCREMENT);
    return status;
}

NTSTATUS NTAPI Open(PDEVICE_OBJECT, PIRP request) {
    return Complete(request, gate::Open(IoGetCurrentIrpStackLocation(request)->FileObject->FsContext), 0);
}

NTSTATUS NTAPI Close(PDEVICE_OBJECT, PIRP request) {
    gate::Close(IoGetCurrentIrpStackLocation(request)->FileObject->FsContext);
    return Complete(request, STATUS_SUCCESS, 0);
}

NTSTATUS NTAPI Control(PDEVICE_OBJECT, PIRP request) {
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(request);
    const auto& control = location->Parameters.DeviceIoControl;
    unsigned returned = 0;
    const NTSTATUS status = gate::Control(location->FileObject->FsContext, control.IoControlCode,
                                          request->AssociatedIrp.SystemBuffer, control.InputBufferLength,
                                          control.OutputBufferLength, returned);
    return Complete(request, status, returned);
}

NTSTATUS StartGate(PDRIVER_OBJECT driver) {
    if (!gate::Boot()) return STATUS_UNSUCCESSFUL;
    driver->MajorFunction[IRP_MJ_CREATE] = Open;
    driver->MajorFunction[IRP_MJ_CLOSE] = Close;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = Control;
    UNICODE_STRING name, link;
    RtlInitUnicodeString(&name, L"\\Device\\kvr");
    RtlInitUnicodeString(&link, L"\\DosDevices\\kvr");
    PDEVICE_OBJECT device = nullptr;
    const NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    return NT_SUCCESS(status) ? IoCreateSymbolicLink(&link, &name) : status;
}

}  // namespace

extern "C" BOOL NTAPI DllMainCRTStartup(HANDLE module, ULONG reason, PVOID reserved);

// Wine calls it twice: as it loads any library, and then as a driver's entry, with the path of its key.
extern "C" LONG NTAPI GateEntry(PVOID object, ULONG_PTR reasonOrPath, PVOID reserved) {
    constexpr ULONG_PTR lastReason = 3;
    if (reasonOrPath <= lastReason)
        return DllMainCRTStartup(object, static_cast<ULONG>(reasonOrPath), reserved);
    return StartGate(static_cast<PDRIVER_OBJECT>(object));
}
