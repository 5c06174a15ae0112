#include "shim.h"
#include <atomic>
#include "image.h"
#include "irql.h"
#include "lines.h"
#include "tests/second_kernel/stage.h"

namespace shim {
namespace {

PUCHAR gHarness;
std::atomic<PUCHAR> gDriver{nullptr};  // mapped once in a boot

// The kernel exports it; the import library does not know it.
using ProtectMemory = NTSTATUS(NTAPI*)(HANDLE, PVOID*, PSIZE_T, ULONG, PULONG);
ProtectMemory gProtect;

using Table = Replacements (*)();
constexpr Table kTables[] = {DebugReplacements,   DeviceReplacements, FileReplacements,  MemoryReplacements,
                             RequestReplacements, SyncReplacements,   ThreadReplacements};

const Replacement* FindReplacement(const char* import) {
    for (Table table : kTables) {
        const Replacements of = table();
        for (ULONG i = 0; i < of.count; ++i)
            if (SameText(of.first[i].name, import)) return &of.first[i];
    }
    return nullptr;
}

PVOID KernelRoutine(const char* name) {
    WCHAR wide[64];
    UNICODE_STRING text{0, sizeof(wide), wide};
    while (*name != 0 && text.Length < sizeof(wide)) {
        wide[text.Length / sizeof(WCHAR)] = static_cast<WCHAR>(*name++);
        text.Length += sizeof(WCHAR);
    }
    return MmGetSystemRoutineAddress(&text);
}

NTSTATUS FindKernelRoutines() {
    for (Table table : kTables) {
        const Replacements of = table();
        for (ULONG i = 0; i < of.count; ++i) {
            if (!of.first[i].kernels) continue;
            *of.first[i].kernels = KernelRoutine(of.first[i].name);
            if (!*of.first[i].kernels) return STATUS_PROCEDURE_NOT_FOUND;
        }
    }
    gProtect = reinterpret_cast<ProtectMemory>(KernelRoutine("ZwProtectVirtualMemory"));
    return gProtect ? STATUS_SUCCESS : STATUS_PROCEDURE_NOT_FOUND;
}

void ReplaceImport(const char* name, PVOID* slot) {
    const Replacement* replacement = FindReplacement(name);
    if (!replacement) return;
    PVOID page = slot;
    SIZE_T bytes = sizeof(*slot);
    ULONG before = 0;
    const HANDLE self = reinterpret_cast<HANDLE>(-1);
    if (!NT_SUCCESS(gProtect(self, &page, &bytes, PAGE_READWRITE, &before))) {
        BrokenRule("an import could not be replaced", slot);
        return;
    }
    *slot = replacement->ours;
    ULONG ignored = 0;
    (void)gProtect(self, &page, &bytes, before, &ignored);
}

bool EndsWith(PCUNICODE_STRING path, const WCHAR* name) {
    UNICODE_STRING wanted;
    RtlInitUnicodeString(&wanted, name);
    if (path->Length < wanted.Length) return false;
    UNICODE_STRING end{wanted.Length, wanted.Length,
                       path->Buffer + (path->Length - wanted.Length) / sizeof(WCHAR)};
    return RtlEqualUnicodeString(&end, &wanted, TRUE);
}

void NTAPI OnImage(PUNICODE_STRING path, HANDLE, PIMAGE_INFO info) {
    if (!path || !EndsWith(path, L"\\kvr64.sys")) return;
    auto* module = static_cast<PUCHAR>(info->ImageBase);
    gDriver = module;
    ForEachImport(module, ReplaceImport);
}

bool IsWithin(PUCHAR module, const void* address) {
    const auto* at = static_cast<const UCHAR*>(address);
    return module && at >= module && at < module + ImageBytes(module);
}

ULONG OffsetIn(PUCHAR module, const void* address) {
    return static_cast<ULONG>(static_cast<const UCHAR*>(address) - module);
}

std::atomic<ULONG> gBrokenRules{0};

}  // namespace

NTSTATUS Install(PDRIVER_OBJECT harness) {
    gHarness = static_cast<PUCHAR>(harness->DriverStart);
    NTSTATUS status = StartIrqlModel(harness);
    if (NT_SUCCESS(status)) status = FindKernelRoutines();
    if (!NT_SUCCESS(status)) return status;
    ForEachImport(gHarness, ReplaceImport);
    return PsSetLoadImageNotifyRoutine(OnImage);
}

bool IsDriverCode(const void* address) {
    return IsWithin(gDriver, address);
}

ULONG OffsetInDriver(const void* address) {
    return OffsetIn(gDriver, address);
}

void BrokenRule(const char* rule, const void* caller) {
    ++gBrokenRules;
    if (IsDriverCode(caller))
        PrintLine("broken rule: %s, at kvr64.sys+%x\n", rule, OffsetInDriver(caller));
    else
        PrintLine("broken rule: %s, at kvrstory.sys+%x\n", rule, OffsetIn(gHarness, caller));
}

}  // namespace shim

ULONG stage::BrokenRules() {
    return shim::gBrokenRules;
}
