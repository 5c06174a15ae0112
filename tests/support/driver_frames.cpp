#include "tests/support/driver_frames.h"

namespace {

struct Counter {
    int& count;
    ~Counter() { ++count; }
};

}  // namespace

void CallThroughDriverFrame(void (*routine)(void*), void* context, int& destroyed) {
    const Counter counter{destroyed};
    routine(context);
}

void CallInTryFinally(void (*routine)(void*), void* context, int& cleanups) {
    TryFinally([&] { routine(context); }, [&] { ++cleanups; });
}

NTSTATUS CallInTryExcept(void (*routine)(void*), void* context) {
    return TryExcept([&]() -> NTSTATUS {
        routine(context);
        return STATUS_SUCCESS;
    });
}
