// What the host kernel offers by name, and the driver's image as the driver to load. The image is built with
// the platform's own headers; layout_check.cpp holds both sides to the same records.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include "platform/host/sync/clock.h"
#include "platform/kernel.h"
#include "tests/second_kernel/stage.h"
#include "tests/second_kernel/wine/image.h"
#include "tests/second_kernel/wine/proof_story.h"

namespace {

// ---- what the platform's headers make of a name that the host kernel declares as it is written ----------
void InitializeRemoveLockEx(PIO_REMOVE_LOCK lock, ULONG tag, ULONG minutes, ULONG highWatermark, ULONG size) {
    if (size != sizeof(IO_REMOVE_LOCK)) KeBugCheckEx(size, 0, 0, 0, 0);
    IoInitializeRemoveLock(lock, tag, minutes, highWatermark);
}
NTSTATUS AcquireRemoveLockEx(PIO_REMOVE_LOCK lock, PVOID tag, PCSTR, ULONG, ULONG) {
    return IoAcquireRemoveLock(lock, tag);
}
void ReleaseRemoveLockEx(PIO_REMOVE_LOCK lock, PVOID tag, ULONG) {
    IoReleaseRemoveLock(lock, tag);
}
void ReleaseRemoveLockAndWaitEx(PIO_REMOVE_LOCK lock, PVOID tag, ULONG) {
    IoReleaseRemoveLockAndWait(lock, tag);
}
PVOID MapLockedPages(PMDL mdl, KPROCESSOR_MODE, ULONG, PVOID, ULONG, ULONG priority) {
    return MmGetSystemAddressForMdlSafe(mdl, priority);
}
POBJECT_TYPE gThreadType = KvrThreadObjectType();

struct Export {
    std::string_view name;
    void* address;
};
#define BY_NAME(routine)                              \
    Export {                                          \
#routine, reinterpret_cast < void*>(&routine) \
    }
const Export kExports[] = {
    {"IoInitializeRemoveLockEx", reinterpret_cast<void*>(InitializeRemoveLockEx)},
    {"IoAcquireRemoveLockEx", reinterpret_cast<void*>(AcquireRemoveLockEx)},
    {"IoReleaseRemoveLockEx", reinterpret_cast<void*>(ReleaseRemoveLockEx)},
    {"IoReleaseRemoveLockAndWaitEx", reinterpret_cast<void*>(ReleaseRemoveLockAndWaitEx)},
    {"MmMapLockedPagesSpecifyCache", reinterpret_cast<void*>(MapLockedPages)},
    {"PsGetCurrentThread", reinterpret_cast<void*>(KeGetCurrentThread)},
    {"PsThreadType", &gThreadType},
    BY_NAME(DbgPrint),
    BY_NAME(ExAcquireFastMutex),
    BY_NAME(ExAllocatePoolWithTag),
    BY_NAME(ExFreePoolWithTag),
    BY_NAME(ExReleaseFastMutex),
    BY_NAME(ExSystemTimeToLocalTime),
    BY_NAME(FsRtlIsPagingFile),
    BY_NAME(IoAttachDeviceToDeviceStack),
    BY_NAME(IoBuildAsynchronousFsdRequest),
    BY_NAME(IoBuildDeviceIoControlRequest),
    BY_NAME(IoCreateDevice),
    BY_NAME(IoCreateNotificationEvent),
    BY_NAME(IoCreateSymbolicLink),
    BY_NAME(IoDeleteDevice),
    BY_NAME(IoDeleteSymbolicLink),
    BY_NAME(IoDetachDevice),
    BY_NAME(IoFreeIrp),
    BY_NAME(IoFreeMdl),
    BY_NAME(IoGetDeviceProperty),
    BY_NAME(IoGetLowerDeviceObject),
    BY_NAME(IoIs32bitProcess),
    BY_NAME(IoRegisterLastChanceShutdownNotification),
    BY_NAME(IoRegisterShutdownNotification),
    BY_NAME(IoUnregisterShutdownNotification),
    BY_NAME(IofCallDriver),
    BY_NAME(IofCompleteRequest),
    BY_NAME(KeAcquireSpinLockRaiseToDpc),
    BY_NAME(KeClearEvent),
    BY_NAME(KeInitializeEvent),
    BY_NAME(KeInitializeMutex),
    BY_NAME(KeReadStateEvent),
    BY_NAME(KeReleaseMutex),
    BY_NAME(KeReleaseSpinLock),
    BY_NAME(KeSetEvent),
    BY_NAME(KeWaitForSingleObject),
    BY_NAME(MmProbeAndLockPages),
    BY_NAME(MmUnlockPages),
    BY_NAME(ObQueryNameString),
    BY_NAME(ObReferenceObjectByHandle),
    BY_NAME(ObfDereferenceObject),
    BY_NAME(ObfReferenceObject),
    BY_NAME(PoCallDriver),
    BY_NAME(PoStartNextPowerIrp),
    BY_NAME(PsCreateSystemThread),
    BY_NAME(PsTerminateSystemThread),
    BY_NAME(RtlAppendUnicodeToString),
    BY_NAME(RtlAssert),
    BY_NAME(RtlCompareUnicodeString),
    BY_NAME(RtlCopyUnicodeString),
    BY_NAME(RtlGetVersion),
    BY_NAME(RtlInitUnicodeString),
    BY_NAME(RtlTimeToTimeFields),
    BY_NAME(RtlUpcaseUnicodeChar),
    BY_NAME(SeTokenIsAdmin),
    BY_NAME(ZwClose),
    BY_NAME(ZwCreateFile),
    BY_NAME(ZwCreateKey),
    BY_NAME(ZwDeleteFile),
    BY_NAME(ZwDeleteValueKey),
    BY_NAME(ZwFlushKey),
    BY_NAME(ZwFsControlFile),
    BY_NAME(ZwQueryInformationFile),
    BY_NAME(ZwQueryValueKey),
    BY_NAME(ZwReadFile),
    BY_NAME(ZwSetValueKey),
    BY_NAME(ZwWriteFile),
};

void* FindExport(const char* name) {
    for (const Export& each : kExports)
        if (each.name == name) return each.address;
    return nullptr;
}

}  // namespace

// Mapped anew for each boot.
PDRIVER_INITIALIZE stage::DriverToLoad() {
    std::string trouble;
    void* entry = image::Load(image::Role::Driver, "kvr64.sys",
                              {FindExport, KeGetCurrentIrql, host::SystemTime}, trouble);
    if (entry != nullptr) return reinterpret_cast<PDRIVER_INITIALIZE>(entry);
    std::fputs(trouble.c_str(), stderr);
    std::exit(2);
}

const Story* stage::OwnStory() {
    return &kProofStory;
}
