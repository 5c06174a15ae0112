#include "driver/record/threads.h"

NTSTATUS CreateDriverThread(PKSTART_ROUTINE routine, PVOID context, KernelHandle* handle) {
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    return PsCreateSystemThread(handle->Receive(), THREAD_ALL_ACCESS, &attributes, nullptr, nullptr, routine,
                                context);
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
    RetractProvisionThread(KvrCurrentThread());
    KVR_DISCARD(PsTerminateSystemThread(status), "a system thread always ends here");
}

void RetractProvisionThread(PKTHREAD thread) {
    KernelMutexLock lock(gProvisionMutex);
    if (gProvisionThread != thread) return;
    gProvisionThread = nullptr;
    ObDereferenceObject(thread);
}
