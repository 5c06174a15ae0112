#include "platform/host/nt/seam.h"

#include "platform/host/nt/exception.h"

// Only kernel exceptions are looked at: the end of a system thread passes both without a cleanup, as on the
// platform, where it unwinds nothing.

void HostTryFinally(void (*body)(const void*), const void* bodyContext, void (*cleanup)(const void*),
                    const void* cleanupContext) {
    try {
        body(bodyContext);
    } catch (const host::KernelException&) {
        cleanup(cleanupContext);
        throw;
    }
    cleanup(cleanupContext);
}

NTSTATUS HostTryExcept(NTSTATUS (*body)(const void*), const void* context) {
    try {
        return body(context);
    } catch (const host::KernelException& exception) {
        return exception.status;
    }
}

void ExRaiseStatus(NTSTATUS status) {
    throw host::KernelException{status};
}
