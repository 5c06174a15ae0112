// Looking into images that the kernel has mapped.
#pragma once
#include "platform/kernel.h"

namespace shim {

// The base of the module with this file name; null when there is none. `driver` is any loaded driver.
PUCHAR FindModule(PDRIVER_OBJECT driver, const WCHAR* name);
// Null for no module or no such export.
PVOID FindExport(PUCHAR module, const char* name);
ULONG ImageBytes(PUCHAR module);

// Calls visit(name, slot) for each import by name; the slot is read-only memory.
using ImportVisitor = void (*)(const char* name, PVOID* slot);
void ForEachImport(PUCHAR module, ImportVisitor visit);

// Both end at the zero.
bool SameText(const char* a, const char* b);

}  // namespace shim
