// The import shim. Wine's kernel lacks some of what the driver asks of its kernel and does some of it more
// loosely; before the driver's entry runs, its import table is pointed at replacements that fill the gaps,
// count broken rules and make faults. The image itself stays as it was built. The harness driver's own imports
// are replaced as well, so that both sides of a request live under the same rules.
#pragma once
#include "platform/kernel.h"

namespace shim {

// One replaced import. `kernels` receives the kernel's own routine, for the replacement to build on.
struct Replacement {
    const char* name;
    PVOID ours;
    PVOID* kernels;  // may be null
};

struct Replacements {
    const Replacement* first;
    ULONG count;
};

// Of each file of the shim.
Replacements DebugReplacements();
Replacements DeviceReplacements();
Replacements FileReplacements();
Replacements MemoryReplacements();
Replacements RequestReplacements();
Replacements SyncReplacements();
Replacements ThreadReplacements();

// Replaces the harness's imports, and the driver's as soon as it is mapped. Once, before any story.
[[nodiscard]] NTSTATUS Install(PDRIVER_OBJECT harness);

// Is `address` code of the driver under test? If so, how far into its image?
bool IsDriverCode(const void* address);
ULONG OffsetInDriver(const void* address);

// Counts a broken rule of the platform and prints it with where `caller` lies.
void BrokenRule(const char* rule, const void* caller);

// Requests and MDLs that were made and are not freed.
LONG OutstandingRequests();
LONG OutstandingMdls();

// Completes a request that Wine made for a user-mode program.
void CompleteUserRequest(PIRP request);

}  // namespace shim

// Who called the replacement in which this stands.
#define SHIM_CALLER __builtin_return_address(0)
