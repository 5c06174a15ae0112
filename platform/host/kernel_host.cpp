#include "kernel_host.h"
#include "device.h"
#include "device_table.h"
#include "namespace.h"
#include "object.h"
#include "registry_store.h"

namespace host {

LeakReport CountLeaks() {
    return {static_cast<ULONG>(OpenHandles().size()), DeviceCount(), CountOutstanding()};
}

void PowerOn() {
    PowerOff();
    // The platform makes it at boot; memory is not short.
    KeClearEvent(NamedEvent(u"\\KernelObjects\\LowNonPagedPoolCondition"));
}

LeakReport PowerOff() {
    const LeakReport report = CountLeaks();
    CloseAllHandles();
    DropProgramFiles();
    DropShutdownList();
    ResetNamespace();
    DropAllDevices();
    DropAllDrivers();
    SetRegistryStore(nullptr);
    return report;
}

}  // namespace host
