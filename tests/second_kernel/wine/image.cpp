#include "image.h"
extern "C" {
#include <ntimage.h>
}

namespace shim {
namespace {

// The loader's record of a module, as far as it is read here: a member of the list in load order.
struct LOADED_MODULE {
    LIST_ENTRY InLoadOrder;
    LIST_ENTRY InMemoryOrder;
    LIST_ENTRY InInitOrder;
    PVOID Base;
    PVOID EntryPoint;
    ULONG ImageBytes;
    UNICODE_STRING FullName;
    UNICODE_STRING BaseName;
};
static_assert(FIELD_OFFSET(LOADED_MODULE, Base) == 0x30);
static_assert(FIELD_OFFSET(LOADED_MODULE, BaseName) == 0x58);

const IMAGE_OPTIONAL_HEADER64& HeaderOf(PUCHAR module) {
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(module);
    return reinterpret_cast<const IMAGE_NT_HEADERS64*>(module + dos->e_lfanew)->OptionalHeader;
}

template <class T>
T* At(PUCHAR module, ULONG64 offset) {
    return reinterpret_cast<T*>(module + offset);
}

}  // namespace

bool SameText(const char* a, const char* b) {
    while (*a != 0 && *a == *b) ++a, ++b;
    return *a == *b;
}

// The list's head is met as a module without a name.
PUCHAR FindModule(PDRIVER_OBJECT driver, const WCHAR* name) {
    UNICODE_STRING wanted;
    RtlInitUnicodeString(&wanted, name);
    auto* start = static_cast<PLIST_ENTRY>(driver->DriverSection);
    for (PLIST_ENTRY link = start->Flink; link != start; link = link->Flink) {
        const auto* module = CONTAINING_RECORD(link, LOADED_MODULE, InLoadOrder);
        if (module->BaseName.Length != wanted.Length || !module->BaseName.Buffer) continue;
        if (RtlEqualUnicodeString(&module->BaseName, &wanted, TRUE)) return static_cast<PUCHAR>(module->Base);
    }
    return nullptr;
}

PVOID FindExport(PUCHAR module, const char* name) {
    if (!module) return nullptr;
    const auto* exports = At<IMAGE_EXPORT_DIRECTORY>(
        module, HeaderOf(module).DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress);
    const auto* names = At<ULONG>(module, exports->AddressOfNames);
    const auto* ordinals = At<USHORT>(module, exports->AddressOfNameOrdinals);
    const auto* functions = At<ULONG>(module, exports->AddressOfFunctions);
    for (ULONG i = 0; i < exports->NumberOfNames; ++i)
        if (SameText(At<char>(module, names[i]), name)) return module + functions[ordinals[i]];
    return nullptr;
}

ULONG ImageBytes(PUCHAR module) {
    return HeaderOf(module).SizeOfImage;
}

void ForEachImport(PUCHAR module, ImportVisitor visit) {
    const IMAGE_DATA_DIRECTORY& directory = HeaderOf(module).DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (directory.VirtualAddress == 0) return;
    for (auto* from = At<IMAGE_IMPORT_DESCRIPTOR>(module, directory.VirtualAddress); from->Name != 0; ++from) {
        const auto* names = At<ULONG64>(module, from->OriginalFirstThunk);
        PVOID* slots = At<PVOID>(module, from->FirstThunk);
        for (; *names != 0; ++names, ++slots)
            if (!(*names & IMAGE_ORDINAL_FLAG64)) visit(At<char>(module, *names + sizeof(USHORT)), slots);
    }
}

}  // namespace shim
