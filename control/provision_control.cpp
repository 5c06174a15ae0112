#include "control/provision_control.h"
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "driver/dispatch.h"
#include "platform/owners.h"
#include "swap/provision.h"

namespace {

constexpr ULONG kAllocationBytes = sizeof(SWAP_CONFIG_REQUEST);
constexpr ULONG kRemovalBytes = sizeof(SWAP_CONFIG_REQUEST::VolumeName);

// Thread handles are the kernel's own. The requester is some process, a user's tool or whoever read a volume
// first: it must not be able to reach them, and they are closed from other processes.
NTSTATUS CreateThread(PKSTART_ROUTINE routine, PVOID context, HANDLE* handle) {
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    return PsCreateSystemThread(handle, THREAD_ALL_ACCESS, &attributes, nullptr, nullptr, routine, context);
}

bool HoldsProtectedConfig(PVOLUME_EXTENSION volume) {
    return gTesselEnabled && volume->IsVolume && volume->IsProtected && volume->PreloadConfigLocation[0] != 0;
}

// Is the named fixed volume itself protected now? Its storage must then stay: redirections are live in it, and
// a volume that lost them, or was captured from anew, would take the next writes into its own fixed sectors.
BOOLEAN IsNamedVolumeProtected(const SWAP_CONFIG_REQUEST* request) {
    PVOLUME_EXTENSION volume = ReferenceRequestedVolume(request);
    if (!volume) return FALSE;
    const bool isProtected = volume->IsProtected && volume->MediaType != RemovableMedia;
    IoReleaseRemoveLock(&volume->RemoveLock, volume);
    return isProtected;
}

// The thread's own copy, always a whole record: what the input does not bring is zero.
NTSTATUS CopyRequest(PVOID input, ULONG length, ULONG least, PoolPtr<SWAP_CONFIG_REQUEST>* request) {
    if (!input || length < least || IsConfigVolumeProtected()) return STATUS_INVALID_PARAMETER;
    *request = NewRecord<SWAP_CONFIG_REQUEST>();
    if (!*request) return STATUS_INSUFFICIENT_RESOURCES;
    RtlCopyMemory(request->Get(), input,
                  length < sizeof(SWAP_CONFIG_REQUEST) ? length : sizeof(SWAP_CONFIG_REQUEST));
    return IsNamedVolumeProtected(request->Get()) ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
}

// The thread's object with a reference, or null.
PKTHREAD ReferenceThread(HANDLE handle) {
    PVOID object = nullptr;
    NTSTATUS status = ObReferenceObjectByHandle(handle, THREAD_ALL_ACCESS, KvrThreadObjectType(), KernelMode,
                                                &object, nullptr);
    return NT_SUCCESS(status) ? static_cast<PKTHREAD>(object) : nullptr;
}

// Under gProvisionMutex the new thread cannot pass EnterProvisioning, so it is published before it does a
// thing, and whoever asks for a second one finds it.
NTSTATUS StartThread(PKSTART_ROUTINE routine, PoolPtr<SWAP_CONFIG_REQUEST> request, PKTHREAD* thread)
    KVR_REQUIRES(gProvisionMutex) {
    gProvisionQuit = FALSE;
    KernelHandle handle;
    NTSTATUS status = CreateThread(routine, request.Get(), handle.Receive());
    if (!NT_SUCCESS(status)) return status;
    static_cast<void>(request.Release());  // the thread's now
    gProvisionThread = ReferenceThread(handle.Get());
    *thread = ReferenceThread(handle.Get());
    return status;
}

// Checks, copies and starts. `created` tells whether the thread's creation was tried; `thread` receives its
// referenced object.
NTSTATUS StartProvisioning(PKSTART_ROUTINE routine, PVOID input, ULONG length, ULONG least, PKTHREAD* thread,
                           BOOLEAN* created) {
    KernelMutexLock lock(gProvisionMutex);
    if (gProvisionThread != nullptr) return STATUS_FILE_LOCK_CONFLICT;
    PoolPtr<SWAP_CONFIG_REQUEST> request;
    NTSTATUS status = CopyRequest(input, length, least, &request);
    if (!NT_SUCCESS(status)) return status;
    *created = TRUE;
    return StartThread(routine, std::move(request), thread);
}

// The published thread with a reference of the caller's, told to stop; null when none runs.
PKTHREAD AskThreadToQuit() {
    KernelMutexLock lock(gProvisionMutex);
    PKTHREAD thread = gProvisionThread;
    if (!thread) return nullptr;
    ObReferenceObject(thread);
    gProvisionQuit = TRUE;
    return thread;
}

// Only if it still is the one published; the reference goes with it.
void ClearProvisionThread(PKTHREAD thread) {
    KernelMutexLock lock(gProvisionMutex);
    if (gProvisionThread != thread) return;
    gProvisionThread = nullptr;
    ObDereferenceObject(thread);
}

NTSTATUS WaitForThread(PKTHREAD thread) {
    return KeWaitForSingleObject(thread, UserRequest, UserMode, FALSE, nullptr);
}

}  // namespace

NTSTATUS StartSwapAllocation(PVOID input, ULONG length) {
    PKTHREAD thread = nullptr;
    BOOLEAN created = FALSE;
    NTSTATUS status =
        StartProvisioning(ConfigureSwapAllocThread, input, length, kAllocationBytes, &thread, &created);
    if (thread) ObDereferenceObject(thread);
    return status;
}

NTSTATUS RunSwapRemoval(PVOID input, ULONG length) {
    PKTHREAD thread = nullptr;
    BOOLEAN created = FALSE;
    NTSTATUS status =
        StartProvisioning(ConfigureSwapRemoveThread, input, length, kRemovalBytes, &thread, &created);
    if (thread) {
        KVR_DISCARD(WaitForThread(thread),
                    "a requester that is being ended no longer waits; the thread goes on");
        ObDereferenceObject(thread);
    }
    if (created) DbgPrint("Kvr!ConfigureSwapAllocThread::finished. returning...\n");
    return status;
}

// A wait that ends early (the requester is being ended) leaves the thread published: it still runs, and a
// second one must not be started beside it.
NTSTATUS StopSwapThread() {
    PKTHREAD thread = AskThreadToQuit();
    if (!thread) return STATUS_SUCCESS;
    NTSTATUS status = WaitForThread(thread);
    if (status != STATUS_SUCCESS) DbgPrint("Kvr!Failed waiting for thread to quit: 0x%08x...\n", status);
    if (status == STATUS_SUCCESS) ClearProvisionThread(thread);
    ObDereferenceObject(thread);
    return status;
}

BOOLEAN IsConfigVolumeProtected() {
    FastMutexLock lock(gVolumeListLock);
    for (PLIST_ENTRY entry = gVolumeList.Flink; entry != &gVolumeList; entry = entry->Flink) {
        if (HoldsProtectedConfig(CONTAINING_RECORD(entry, VOLUME_EXTENSION, ListEntry))) return TRUE;
    }
    return FALSE;
}

NTSTATUS StartArmThread(PVOLUME_EXTENSION volume) {
    NTSTATUS status = IoAcquireRemoveLock(&volume->RemoveLock, volume);
    if (!NT_SUCCESS(status)) return status;
    HANDLE handle = nullptr;
    status = CreateThread(StorageArmThread, volume, &handle);
    if (!NT_SUCCESS(status)) {
        IoReleaseRemoveLock(&volume->RemoveLock, volume);
        return status;
    }
    // The caller holds the record too, so removal, which closes the handle, finds it here.
    KernelHandle(volume->ArmThreadHandle.exchange(handle)).Reset();
    return status;
}

// The mutex is held while this thread is created and published: passing it is all there is to wait for. The
// thread publishes itself only if its starter could not name it.
void EnterProvisioning() {
    KernelMutexLock lock(gProvisionMutex);
    PKTHREAD self = KvrCurrentThread();
    if (gProvisionThread == self) return;
    ObReferenceObject(self);
    gProvisionThread = self;
}

void LeaveProvisioning(NTSTATUS status) {
    ClearProvisionThread(KvrCurrentThread());
    KVR_DISCARD(PsTerminateSystemThread(status), "a system thread always ends here");
}
