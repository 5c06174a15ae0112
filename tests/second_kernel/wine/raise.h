// Raising exceptions: Wine's ExRaiseStatus is a stub.
#pragma once
#include "platform/kernel.h"

namespace shim {

[[noreturn]] void Raise(NTSTATUS status);

}  // namespace shim
