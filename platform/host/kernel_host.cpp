#include "platform/host/kernel_host.h"
#include "platform/host/io/device.h"
#include "platform/host/io/device_table.h"
#include "platform/host/memory/paging_files.h"
#include "platform/host/object/namespace.h"
#include "platform/host/object/object.h"
#include "platform/host/object/registry_store.h"
#include "platform/host/check/host_memory.h"
#include "platform/host/sync/thread.h"

namespace host {

LeakReport CountLeaks() {
    return {static_cast<ULONG>(OpenHandles().size()), DeviceCount(), LivingSystemThreads(), CountOutstanding()};
}

void PowerOn() {
    PowerOff();
    // The platform makes it at boot; memory is not short.
    KeClearEvent(NamedEvent(u"\\KernelObjects\\LowNonPagedPoolCondition"));
}

LeakReport PowerOff() {
    const LeakReport report = Insist("the report of a boot", CountLeaks);
    CloseAllHandles();
    DropProgramFiles();
    DropShutdownLists();
    DropPagingFiles();
    ResetNamespace();
    DropAllDevices();
    DropAllDrivers();
    SetRegistryStore(nullptr);
    return report;
}

}  // namespace host
