// The host's side of what C++ cannot spell the same way for both kernels (see platform/kernel.h).
#pragma once
#include "platform/host/nt/ntzw.h"

#define KVR_WIDE(text) u##text
#define W(text) KVR_WIDE(text)

// Kernel exceptions travel as C++ exceptions; these two are compiled with exceptions on, the driver without.
void HostTryFinally(void (*body)(const void*), const void* bodyContext, void (*cleanup)(const void*),
                    const void* cleanupContext);
NTSTATUS HostTryExcept(NTSTATUS (*body)(const void*), const void* context);

template <class Body, class Cleanup>
void TryFinally(const Body& body, const Cleanup& cleanup) {
    HostTryFinally([](const void* b) { (*static_cast<const Body*>(b))(); }, &body,
                   [](const void* c) { (*static_cast<const Cleanup*>(c))(); }, &cleanup);
}

template <class Body>
[[nodiscard]] NTSTATUS TryExcept(const Body& body) {
    return HostTryExcept([](const void* b) -> NTSTATUS { return (*static_cast<const Body*>(b))(); }, &body);
}

[[noreturn]] void KvrFastFail(ULONG code);
inline PKTHREAD KvrCurrentThread() {
    return KeGetCurrentThread();
}
POBJECT_TYPE KvrThreadObjectType();
void KvrAnnounceHold(PFAST_MUTEX mutex);
void KvrAnnounceRelease(PFAST_MUTEX mutex);
