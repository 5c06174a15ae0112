// The IRQL of each thread. Wine runs everything at PASSIVE_LEVEL and does not keep one.
#pragma once
#include "platform/kernel.h"

namespace shim {

KIRQL Irql();
void SetIrql(KIRQL irql);
// Counts a broken rule when the thread is above `highest`.
void RequireIrql(KIRQL highest, const char* what, const void* caller);

// From here on the processor's task priority register, which the headers' own KeGetCurrentIrql and its like
// read and write, stands for this IRQL.
[[nodiscard]] NTSTATUS StartIrqlModel(PDRIVER_OBJECT harness);

}  // namespace shim
