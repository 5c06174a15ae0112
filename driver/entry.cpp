#include "config/storage.h"
#include "driver/device_control.h"
#include "driver/attach.h"
#include "driver/create_close.h"
#include "driver/entry.h"
#include "driver/globals.h"
#include "driver/remove.h"
#include "driver/shutdown.h"
#include "driver/record/requests.h"
#include "driver/record/threads.h"
#include "platform/owners.h"
#include "redirect/redirect.h"
#include "swap/swap_file.h"

namespace {

void InitializeEarlyLocks() {
    KeInitializeSpinLock(&gControlLock);
    KeInitializeMutex(&gSwapFileMutex, 0);
    KeInitializeMutex(&gProvisionMutex, 0);
    KeInitializeEvent(&gBootStatusEvent, NotificationEvent, FALSE);
}

NTSTATUS CreateControlDevice(PDRIVER_OBJECT driver, PUNICODE_STRING name) {
    NTSTATUS status =
        IoCreateDevice(driver, 0, name, FILE_DEVICE_NETWORK, FILE_DEVICE_SECURE_OPEN, FALSE, &gControlDevice);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Kvr!DriverEntry: Error creating control device object \"%wZ\", status=%08x\n", name, status);
    }
    return status;
}

// A link that an earlier load left behind is deleted, and the link made once more.
NTSTATUS CreateControlLink(PUNICODE_STRING device) {
    UNICODE_STRING link;
    RtlInitUnicodeString(&link, W("\\DosDevices\\kvr"));
    NTSTATUS status = IoCreateSymbolicLink(&link, device);
    if (NT_SUCCESS(status)) return status;
    KVR_DISCARD(IoDeleteSymbolicLink(&link), "whether a link stood in the way shows in the second attempt");
    status = IoCreateSymbolicLink(&link, device);
    if (!NT_SUCCESS(status)) DbgPrint("Kvr!DriverEntry: IoCreateSymbolicLink failed\n");
    return status;
}

void InstallStandBy(PDRIVER_OBJECT driver) {
    for (ULONG major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; ++major) {
        driver->MajorFunction[major] = KvrDefaultDispatch;
    }
    driver->DriverExtension->AddDevice = AddDeviceStandBy;
}

// Executable pool would be refused where the system guards the integrity of its code.
POOL_TYPE PoolTypeOf(const RTL_OSVERSIONINFOEXW& version) {
    const bool knowsNoExecute =
        version.dwMajorVersion > 6 || (version.dwMajorVersion == 6 && version.dwMinorVersion >= 2);
    return knowsNoExecute ? NonPagedPoolNx : NonPagedPool;
}

void InstallDispatch(PDRIVER_OBJECT driver) {
    driver->MajorFunction[IRP_MJ_CREATE] = KvrCreate;
    driver->MajorFunction[IRP_MJ_READ] = KvrRead;
    driver->MajorFunction[IRP_MJ_WRITE] = KvrWrite;
    driver->MajorFunction[IRP_MJ_CLOSE] = KvrClose;
    driver->MajorFunction[IRP_MJ_FLUSH_BUFFERS] = KvrFlush;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = KvrDeviceControl;
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = KvrDeviceControl;
    driver->MajorFunction[IRP_MJ_PNP] = KvrPnp;
    driver->MajorFunction[IRP_MJ_POWER] = KvrPower;
    driver->MajorFunction[IRP_MJ_SHUTDOWN] = KvrShutdown;
    driver->DriverExtension->AddDevice = AddDevice;
}

}  // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath) {
    UNREFERENCED_PARAMETER(registryPath);
    InitializeGlobals();
    InitializeEarlyLocks();

    UNICODE_STRING name;
    RtlInitUnicodeString(&name, W("\\Device\\kvr"));
    NTSTATUS status = CreateControlDevice(driver, &name);
    if (!NT_SUCCESS(status)) return status;
    status = CreateControlLink(&name);
    if (!NT_SUCCESS(status)) {
        IoDeleteDevice(gControlDevice);
        gControlDevice = nullptr;
        return status;
    }

    InstallStandBy(driver);
    if (QueryOsVersion() == STATUS_SUCCESS && IsOsVersionSupported()) {
        gPoolType = PoolTypeOf(gVersionInfo);
        InstallDispatch(driver);
    }

    ExInitializeFastMutex(&gVolumeListLock);
    ExInitializeFastMutex(&gConfigWriteLock);
    InitializeListHead(&gVolumeList);
    gControlDevice->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    DbgPrint("Kvr!DriverEntry: 0x%08x\n", TraceAddress(driver));
    return STATUS_SUCCESS;
}

// Stands in until the version gate has passed: the device is left without a filter.
NTSTATUS AddDeviceStandBy(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
    UNREFERENCED_PARAMETER(driver);
    UNREFERENCED_PARAMETER(pdo);
    return STATUS_SUCCESS;
}

NTSTATUS QueryOsVersion() {
    gVersionInfo = {};
    gVersionInfo.dwOSVersionInfoSize = sizeof(gVersionInfo);
    NTSTATUS status = RtlGetVersion(reinterpret_cast<PRTL_OSVERSIONINFOW>(&gVersionInfo));
    if (!NT_SUCCESS(status)) {
        DbgPrint("Kvr!RtlGetVersion failed (%08x)\n", status);
        return status;
    }
    DbgPrint(
        "Kvr!RtlGetVersion: dwMajorVersion=%d, dwMinorVersion=%d, dwBuildNumber=%d, dwPlatformId=%d, "
        "wServicePackMajor=%d, wServicePackMinor=%d\n",
        gVersionInfo.dwMajorVersion, gVersionInfo.dwMinorVersion, gVersionInfo.dwBuildNumber,
        gVersionInfo.dwPlatformId, gVersionInfo.wServicePackMajor, gVersionInfo.wServicePackMinor);
    return status;
}

// Every version that can be read will do; the gate keeps out systems that do not tell theirs.
BOOLEAN IsOsVersionSupported() {
    return TRUE;
}
