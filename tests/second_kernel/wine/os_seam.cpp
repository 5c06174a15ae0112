// For platform/host/os. Kernel exceptions are structured ones here, as the driver's image expects them. Whoever
// catches them is that image alone, so the host's own TryFinally and TryExcept are not there.
#include "platform/host/nt/ntex.h"

// The system's own header has other types under the kernel's names.
extern "C" __declspec(dllimport) void RaiseException(unsigned long code, unsigned long flags,
                                                     unsigned long count, const ULONG_PTR* arguments);

void ExRaiseStatus(NTSTATUS status) {
    constexpr unsigned long kNotContinuable = 1;
    RaiseException(static_cast<unsigned long>(status), kNotContinuable, 0, nullptr);
    __builtin_unreachable();
}
