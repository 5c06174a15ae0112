// Device stacks, device properties and the shutdown list: Wine knows which device lies above another, not
// below, takes over no sector size, and asks nobody at shutdown.
#include "irql.h"
#include "shim.h"
#include "tests/second_kernel/stage.h"

namespace shim {
namespace {

decltype(&IoCreateDevice) gKernelCreate;
decltype(&IoDeleteDevice) gKernelDelete;
decltype(&IoAttachDeviceToDeviceStack) gKernelAttach;
decltype(&IoDetachDevice) gKernelDetach;

constexpr ULONG kMostDevices = 64;

struct Attachment {
    PDEVICE_OBJECT upper;  // null: free
    PDEVICE_OBJECT lower;
};
struct Property {
    PDEVICE_OBJECT pdo;
    DEVICE_REGISTRY_PROPERTY property;
    const WCHAR* value;
};

KSPIN_LOCK gLock;  // guards what follows
Attachment gAttachments[kMostDevices];
PDEVICE_OBJECT gShutdownList[kMostDevices];  // in order of registration
ULONG gShutdownCount;
Property gProperties[2 * kMostDevices];
ULONG gPropertyCount;

class Guard {
public:
    Guard() : m_irql(KeAcquireSpinLockRaiseToDpc(&gLock)) {}
    ~Guard() { KeReleaseSpinLock(&gLock, m_irql); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

private:
    KIRQL m_irql;
};

Attachment* FindAttachment(PDEVICE_OBJECT upper) {
    for (Attachment& one : gAttachments)
        if (one.upper == upper) return &one;
    return nullptr;
}

NTSTATUS NTAPI Create(PDRIVER_OBJECT driver, ULONG extensionBytes, PUNICODE_STRING name, DEVICE_TYPE type,
                      ULONG characteristics, BOOLEAN exclusive, PDEVICE_OBJECT* device) {
    RequireIrql(APC_LEVEL, "device made at too high an IRQL", SHIM_CALLER);
    const NTSTATUS status =
        gKernelCreate(driver, extensionBytes, name, type, characteristics, exclusive, device);
    if (!NT_SUCCESS(status)) return status;
    (*device)->Characteristics = characteristics;
    (*device)->Flags |= DO_DEVICE_INITIALIZING;
    return status;
}

void NTAPI Delete(PDEVICE_OBJECT device) {
    RequireIrql(APC_LEVEL, "device deleted at too high an IRQL", SHIM_CALLER);
    if (device->AttachedDevice) BrokenRule("device deleted under another", SHIM_CALLER);
    IoUnregisterShutdownNotification(device);
    gKernelDelete(device);
}

// Nothing attaches to a device that is not ready.
PDEVICE_OBJECT NTAPI Attach(PDEVICE_OBJECT source, PDEVICE_OBJECT target) {
    if (stage::TopOfStack(target)->Flags & DO_DEVICE_INITIALIZING) return nullptr;
    PDEVICE_OBJECT lower = gKernelAttach(source, target);
    if (!lower) return nullptr;
    source->SectorSize = lower->SectorSize;
    source->AlignmentRequirement = lower->AlignmentRequirement;
    Guard guard;
    if (Attachment* place = FindAttachment(nullptr)) *place = {source, lower};
    return lower;
}

void NTAPI Detach(PDEVICE_OBJECT lower) {
    {
        Guard guard;
        if (Attachment* place = lower->AttachedDevice ? FindAttachment(lower->AttachedDevice) : nullptr)
            *place = {};
    }
    gKernelDetach(lower);
}

PDEVICE_OBJECT NTAPI LowerDevice(PDEVICE_OBJECT device) {
    Guard guard;
    const Attachment* attachment = FindAttachment(device);
    if (!attachment) return nullptr;
    ObReferenceObject(attachment->lower);
    return attachment->lower;
}

const WCHAR* FindProperty(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property) {
    Guard guard;
    for (ULONG i = gPropertyCount; i > 0; --i) {
        const Property& one = gProperties[i - 1];
        if (one.pdo == pdo && one.property == property) return one.value;
    }
    return nullptr;
}

NTSTATUS NTAPI GetProperty(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property, ULONG bytes, PVOID buffer,
                           PULONG needed) {
    RequireIrql(PASSIVE_LEVEL, "device property asked for at too high an IRQL", SHIM_CALLER);
    *needed = 0;
    const WCHAR* value = FindProperty(pdo, property);
    if (!value) return STATUS_INVALID_DEVICE_REQUEST;
    UNICODE_STRING text;
    RtlInitUnicodeString(&text, value);
    *needed = text.MaximumLength;
    if (bytes < text.MaximumLength) return STATUS_BUFFER_TOO_SMALL;
    RtlCopyMemory(buffer, value, text.MaximumLength);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI RegisterShutdown(PDEVICE_OBJECT device) {
    RequireIrql(PASSIVE_LEVEL, "shutdown registration at too high an IRQL", SHIM_CALLER);
    Guard guard;
    if (gShutdownCount == kMostDevices) return STATUS_INSUFFICIENT_RESOURCES;
    gShutdownList[gShutdownCount++] = device;
    return STATUS_SUCCESS;
}

void NTAPI UnregisterShutdown(PDEVICE_OBJECT device) {
    Guard guard;
    ULONG kept = 0;
    for (ULONG i = 0; i < gShutdownCount; ++i)
        if (gShutdownList[i] != device) gShutdownList[kept++] = gShutdownList[i];
    gShutdownCount = kept;
}

PDEVICE_OBJECT TakeLastRegistered() {
    Guard guard;
    return gShutdownCount > 0 ? gShutdownList[--gShutdownCount] : nullptr;
}

NTSTATUS NTAPI KeepRequest(PDEVICE_OBJECT, PIRP, PVOID event) {
    (void)KeSetEvent(static_cast<PKEVENT>(event), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

void SendShutdown(PDEVICE_OBJECT device) {
    PDEVICE_OBJECT top = stage::TopOfStack(device);
    PIRP request = IoAllocateIrp(top->StackSize, FALSE);
    if (!request) return;
    IoGetNextIrpStackLocation(request)->MajorFunction = IRP_MJ_SHUTDOWN;
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoSetCompletionRoutine(request, KeepRequest, &done, TRUE, TRUE, TRUE);
    (void)IoCallDriver(top, request);
    (void)KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    IoFreeIrp(request);
}

const Replacement kReplacements[] = {
    {"IoCreateDevice", reinterpret_cast<PVOID>(Create), reinterpret_cast<PVOID*>(&gKernelCreate)},
    {"IoDeleteDevice", reinterpret_cast<PVOID>(Delete), reinterpret_cast<PVOID*>(&gKernelDelete)},
    {"IoAttachDeviceToDeviceStack", reinterpret_cast<PVOID>(Attach), reinterpret_cast<PVOID*>(&gKernelAttach)},
    {"IoDetachDevice", reinterpret_cast<PVOID>(Detach), reinterpret_cast<PVOID*>(&gKernelDetach)},
    {"IoGetLowerDeviceObject", reinterpret_cast<PVOID>(LowerDevice), nullptr},
    {"IoGetDeviceProperty", reinterpret_cast<PVOID>(GetProperty), nullptr},
    {"IoRegisterShutdownNotification", reinterpret_cast<PVOID>(RegisterShutdown), nullptr},
    {"IoUnregisterShutdownNotification", reinterpret_cast<PVOID>(UnregisterShutdown), nullptr},
};

}  // namespace

Replacements DeviceReplacements() {
    return {kReplacements, RTL_NUMBER_OF(kReplacements)};
}

}  // namespace shim

void stage::SetDeviceProperty(PDEVICE_OBJECT pdo, DEVICE_REGISTRY_PROPERTY property, const WCHAR* value) {
    shim::Guard guard;
    if (shim::gPropertyCount < RTL_NUMBER_OF(shim::gProperties))
        shim::gProperties[shim::gPropertyCount++] = {pdo, property, value};
}

PDEVICE_OBJECT stage::TopOfStack(PDEVICE_OBJECT device) {
    while (device->AttachedDevice) device = device->AttachedDevice;
    return device;
}

void stage::NotifyShutdown() {
    while (PDEVICE_OBJECT device = shim::TakeLastRegistered()) shim::SendShutdown(device);
}
