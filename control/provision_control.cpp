#include "control/provision_control.h"
#include "config/parser.h"
#include "driver/record/threads.h"
#include "swap/provision.h"

namespace {

constexpr ULONG kAllocationBytes = sizeof(SWAP_CONFIG_REQUEST);
constexpr ULONG kRemovalBytes = sizeof(SWAP_CONFIG_REQUEST::VolumeName);

bool HoldsProtectedConfig(PVOLUME_EXTENSION volume) {
    return gTesselEnabled && volume->IsVolume && volume->IsProtected && volume->PreloadConfigLocation[0] != 0;
}

// Is the named fixed volume itself protected now? Its storage must then stay: redirections are live in it, and
// a volume that lost them, or was captured from anew, would take the next writes into its own fixed sectors.
BOOLEAN IsNamedVolumeProtected(const SWAP_CONFIG_REQUEST* request) {
    const RecordHold volume = FindRequestedVolume(request);
    return !volume.Failed() && volume.Get()->IsProtected && volume.Get()->MediaType != RemovableMedia;
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
    NTSTATUS status = CreateDriverThread(routine, request.Get(), &handle);
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
    if (status == STATUS_SUCCESS) RetractProvisionThread(thread);
    ObDereferenceObject(thread);
    return status;
}

BOOLEAN IsConfigVolumeProtected() {
    FastMutexLock lock(gVolumeListLock);
    for (PVOLUME_EXTENSION volume : Volumes())
        if (HoldsProtectedConfig(volume)) return TRUE;
    return FALSE;
}
