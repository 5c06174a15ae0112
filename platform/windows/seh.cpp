// The seam over the Windows kernel: structured exceptions, fast fail, thread identity.
#include "platform/kernel.h"

extern "C" {
// The header's inline reads the processor control region, which only the platform's own kernel keeps that
// way; the import is right on every kernel.
extern PKTHREAD(NTAPI* const ImportedGetCurrentThread)() __asm__("__imp_PsGetCurrentThread");
}

namespace {

__attribute__((noinline)) void RunBody(void (*body)(const void*), const void* context) {
    body(context);
}

__attribute__((noinline)) NTSTATUS RunStatusBody(NTSTATUS (*body)(const void*), const void* context) {
    return body(context);
}

// The code is taken in the filter, where the exception record is at hand on every kernel.
int TakeCode(EXCEPTION_POINTERS* exception, NTSTATUS* code) {
    *code = static_cast<NTSTATUS>(exception->ExceptionRecord->ExceptionCode);
    return EXCEPTION_EXECUTE_HANDLER;
}

}  // namespace

void SehTryFinally(void (*body)(const void*), const void* bodyContext, void (*cleanup)(const void*),
                   const void* cleanupContext) {
    __try {
        RunBody(body, bodyContext);
    } __finally {
        cleanup(cleanupContext);
    }
}

NTSTATUS SehTryExcept(NTSTATUS (*body)(const void*), const void* context) {
    NTSTATUS status = STATUS_SUCCESS;
    __try {
        status = RunStatusBody(body, context);
    } __except (TakeCode(static_cast<EXCEPTION_POINTERS*>(_exception_info()), &status)) {
    }
    return status;
}

void KvrFastFail(ULONG code) {
    __asm__ volatile("int $0x29" : : "c"(code) : "memory");
    __builtin_unreachable();
}

PKTHREAD KvrCurrentThread() {
    return ImportedGetCurrentThread();
}

// The headers declare PsThreadType with one indirection too many for an imported variable: its value is
// the type object already.
POBJECT_TYPE KvrThreadObjectType() {
    return reinterpret_cast<POBJECT_TYPE>(PsThreadType);
}
