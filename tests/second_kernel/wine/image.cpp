#include "tests/second_kernel/wine/image.h"
#include <windows.h>
#include <cstring>
#include "tests/second_kernel/wine/traps.h"

extern "C" __declspec(dllimport) IMAGE_BASE_RELOCATION* NTAPI
    LdrProcessRelocationBlock(void* page, UINT count, USHORT* entries, INT_PTR moved);

namespace image {
namespace {

HMODULE gLoaded[2];  // by Role
HMODULE gNow;

template <class T>
T* At(ULONG_PTR offset) {
    return reinterpret_cast<T*>(reinterpret_cast<unsigned char*>(gNow) + offset);
}

const IMAGE_NT_HEADERS64& Headers() {
    return *At<IMAGE_NT_HEADERS64>(static_cast<ULONG_PTR>(At<IMAGE_DOS_HEADER>(0)->e_lfanew));
}

const IMAGE_DATA_DIRECTORY& Directory(int number) {
    return Headers().OptionalHeader.DataDirectory[number];
}

// Where the program or the library lies that this is part of.
std::string Folder() {
    HMODULE self = nullptr;
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCSTR>(&gLoaded), &self);
    char path[MAX_PATH];
    const std::string text(path, GetModuleFileNameA(self, path, sizeof path));
    return text.substr(0, text.rfind('\\') + 1);
}

bool IsNative() {
    return gNow != nullptr && Headers().FileHeader.Machine == IMAGE_FILE_MACHINE_AMD64 &&
           Headers().OptionalHeader.Subsystem == IMAGE_SUBSYSTEM_NATIVE;
}

// Lets `change` write to a range, whose protection is then as before.
template <class Change>
bool Changing(void* range, SIZE_T bytes, const Change& change) {
    DWORD rights = 0;
    if (!VirtualProtect(range, bytes, PAGE_READWRITE, &rights)) return false;
    change();
    return VirtualProtect(range, bytes, rights, &rights);
}

// The system moves libraries alone. False when the image lies where it prefers to, or cannot be moved.
bool Relocate() {
    constexpr SIZE_T kPage = 4096;
    const INT_PTR moved =
        reinterpret_cast<INT_PTR>(gNow) - static_cast<INT_PTR>(Headers().OptionalHeader.ImageBase);
    const IMAGE_DATA_DIRECTORY& directory = Directory(IMAGE_DIRECTORY_ENTRY_BASERELOC);
    bool done = moved != 0 && directory.Size != 0;
    for (DWORD at = 0; done && at < directory.Size;) {
        auto* block = At<IMAGE_BASE_RELOCATION>(directory.VirtualAddress + at);
        void* const page = At<void>(block->VirtualAddress);
        done = Changing(page, kPage, [&] {
            const UINT count = (block->SizeOfBlock - sizeof *block) / sizeof(USHORT);
            LdrProcessRelocationBlock(page, count, reinterpret_cast<USHORT*>(block + 1), moved);
        });
        at += block->SizeOfBlock;
    }
    return done;
}

// What the image's compiler asks for is the system's; nothing else is.
void* FindSystemRoutine(const std::string& name) {
    for (const char* known : {"__C_specific_handler", "memcpy", "memmove", "memset"})
        if (name == known)
            return reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), known));
    return nullptr;
}

void FillImports(const Kernel& kernel, std::string& trouble) {
    const auto* from = At<IMAGE_IMPORT_DESCRIPTOR>(Directory(IMAGE_DIRECTORY_ENTRY_IMPORT).VirtualAddress);
    for (; from->Name != 0; ++from) {
        const auto* names = At<ULONGLONG>(from->OriginalFirstThunk);
        for (auto* slot = At<void*>(from->FirstThunk); *names != 0; ++names, ++slot) {
            const char* name = At<IMAGE_IMPORT_BY_NAME>(static_cast<DWORD>(*names))->Name;
            *slot = kernel.find(name);
            if (*slot == nullptr) *slot = FindSystemRoutine(name);
            if (*slot == nullptr) trouble += std::string("the kernel has no ") + name + "\n";
        }
    }
}

bool Import(const Kernel& kernel, std::string& trouble) {
    const IMAGE_DATA_DIRECTORY& slots = Directory(IMAGE_DIRECTORY_ENTRY_IAT);
    return Changing(At<void>(slots.VirtualAddress), slots.Size, [&] { FillImports(kernel, trouble); });
}

}  // namespace

void* Load(Role role, const std::string& name, const Kernel& kernel, std::string& trouble) {
    HMODULE& loaded = gLoaded[static_cast<int>(role)];
    if (loaded != nullptr) FreeLibrary(loaded);
    // Taken, so that the image lies elsewhere: it is linked for this address, as a driver is by default.
    VirtualAlloc(reinterpret_cast<void*>(0x140000000), 1, MEM_RESERVE, PAGE_NOACCESS);
    gNow = loaded = LoadLibraryExA((Folder() + name).c_str(), nullptr, DONT_RESOLVE_DLL_REFERENCES);
    if (!IsNative())
        trouble = name + " is no native image\n";
    else if (!Relocate())
        trouble = "the image cannot be moved\n";
    else if (!Import(kernel, trouble))
        trouble = "the image's imports cannot be written\n";
    if (!trouble.empty()) return nullptr;
    const IMAGE_OPTIONAL_HEADER64& headers = Headers().OptionalHeader;
    if (role == Role::Driver) traps::Watch(At<unsigned char>(0), headers.SizeOfImage, kernel);
    return At<void>(headers.AddressOfEntryPoint);
}

}  // namespace image
