// How a kernel exception travels on the host. Only the host kernel throws and catches it; the driver's frames
// in between are compiled without exceptions and are unwound without a cleanup of their own.
#pragma once
#include "platform/host/nt/ntdef.h"

namespace host {

struct KernelException {
    NTSTATUS status;
};

}  // namespace host
