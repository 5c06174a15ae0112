// What a service manager that waits for a server is told.
#pragma once

namespace tool {

// That the machine is on: "READY=1" to the datagram socket that NOTIFY_SOCKET names. Does nothing where nobody
// waits. It is told once.
void NotifyReady();

}  // namespace tool
