// What RtlGetVersion reports. 10.0.19041 at start.
#pragma once
#include "platform/host/nt/ntdef.h"

namespace host {

void SetOsVersion(ULONG major, ULONG minor, ULONG build);
// Makes RtlGetVersion fail with `status`; STATUS_SUCCESS lets it work again.
void FailOsVersion(NTSTATUS status);

}  // namespace host
