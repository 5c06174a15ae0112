// What RtlGetVersion reports. It is 10.0.19041 by itself.
#pragma once
#include "platform/host/nt/ntdef.h"

namespace host {

// Makes RtlGetVersion report another version.
void SetOsVersion(ULONG major, ULONG minor);
// Makes RtlGetVersion fail with `status`; STATUS_SUCCESS lets it work again.
void FailOsVersion(NTSTATUS status);

}  // namespace host
