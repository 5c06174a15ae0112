// Dispatcher headers of the host kernel's own objects. For the host kernel's own files.
#pragma once
#include "platform/host/nt/ntke.h"

namespace host {

void InitializeHeader(DISPATCHER_HEADER& header, HostDispatcherType type, bool synchronization, LONG word);
// Signals and wakes; true when it was signalled before. The object may be gone when this returns.
bool SignalHeader(DISPATCHER_HEADER& header);

}  // namespace host
