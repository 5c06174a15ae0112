// The Windows kernel's own declarations, from the DDK headers, and the seam's names over them.
#pragma once
extern "C" {
#include <ntifs.h>
#include <ntddk.h>
#include <ntdddisk.h>
#include <ntddvol.h>
#include <ntddscsi.h>
#include <mountmgr.h>
}
#undef min
#undef max

#define KVR_WIDE(text) L##text
#define W(text) KVR_WIDE(text)

#define KVR_CAPABILITY(name)
#define KVR_SCOPED
#define KVR_GUARDED_BY(lock)
#define KVR_ACQUIRE(...)
#define KVR_RELEASE(...)
#define KVR_REQUIRES(...)
#define KVR_EXCLUDES(...)
#define KVR_NO_ANALYSIS

// Structured exception handling (seh.cpp). The code that may raise stands in called functions, as the
// compiler asks.
void SehTryFinally(void (*body)(const void*), const void* bodyContext, void (*cleanup)(const void*),
                   const void* cleanupContext);
NTSTATUS SehTryExcept(NTSTATUS (*body)(const void*), const void* context);

template <class Body, class Cleanup>
void TryFinally(const Body& body, const Cleanup& cleanup) {
    SehTryFinally([](const void* b) { (*static_cast<const Body*>(b))(); }, &body,
                  [](const void* c) { (*static_cast<const Cleanup*>(c))(); }, &cleanup);
}

template <class Body>
[[nodiscard]] NTSTATUS TryExcept(const Body& body) {
    return SehTryExcept([](const void* b) -> NTSTATUS { return (*static_cast<const Body*>(b))(); }, &body);
}

[[noreturn]] void KvrFastFail(ULONG code);
PKTHREAD KvrCurrentThread();
POBJECT_TYPE KvrThreadObjectType();
