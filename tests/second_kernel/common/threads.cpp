#include "tests/second_kernel/common/threads.h"
#include "tests/second_kernel/stage.h"

namespace {

struct Share {
    void (*routine)(PVOID, ULONG);
    PVOID context;
    ULONG index;
    PRKEVENT go;
};

void RunShare(PVOID context) {
    const auto* share = static_cast<Share*>(context);
    (void)KeWaitForSingleObject(share->go, Executive, KernelMode, FALSE, nullptr);
    share->routine(share->context, share->index);
    (void)PsTerminateSystemThread(STATUS_SUCCESS);
}

}  // namespace

PVOID StartThread(PKSTART_ROUTINE routine, PVOID context) {
    const stage::OwnWork own;
    HANDLE handle = nullptr;
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    NTSTATUS status =
        PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, &attributes, nullptr, nullptr, routine, context);
    if (!stage::CheckStatus(status, STATUS_SUCCESS, "a thread of the story")) return nullptr;
    PVOID thread = nullptr;
    status = ObReferenceObjectByHandle(handle, THREAD_ALL_ACCESS, KvrThreadObjectType(), KernelMode, &thread,
                                       nullptr);
    stage::CheckStatus(status, STATUS_SUCCESS, "the thread's object");
    (void)ZwClose(handle);
    return NT_SUCCESS(status) ? thread : nullptr;
}

void JoinThread(PVOID thread) {
    if (!thread) return;
    (void)KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
    ObDereferenceObject(thread);
}

void RunTogether(ULONG count, void (*routine)(PVOID, ULONG), PVOID context) {
    KEVENT go;
    KeInitializeEvent(&go, NotificationEvent, FALSE);
    Share shares[kMostThreads];
    PVOID threads[kMostThreads];
    for (ULONG i = 0; i < count && i < kMostThreads; ++i) {
        shares[i] = {routine, context, i, &go};
        threads[i] = StartThread(RunShare, &shares[i]);
    }
    KeSetEvent(&go, 0, FALSE);
    for (ULONG i = 0; i < count && i < kMostThreads; ++i) JoinThread(threads[i]);
}

// Waits for an event that nobody sets.
void Sleep(ULONG milliseconds) {
    KEVENT never;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    LARGE_INTEGER time;
    time.QuadPart = -10000LL * milliseconds;
    (void)KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, &time);
}
