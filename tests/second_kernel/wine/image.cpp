#include "tests/second_kernel/wine/image.h"
#include <windows.h>
#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>
#include "tests/second_kernel/wine/traps.h"

namespace image {
namespace {

struct Mapping {
    unsigned char* image;
    RUNTIME_FUNCTION* unwind;
};
Mapping gMappings[2];  // by Role
Mapping* gNow = &gMappings[0];

template <class T>
T* At(DWORD offset) {
    return reinterpret_cast<T*>(gNow->image + offset);
}

const IMAGE_NT_HEADERS64& HeadersOf(const unsigned char* file) {
    return *reinterpret_cast<const IMAGE_NT_HEADERS64*>(
        file + reinterpret_cast<const IMAGE_DOS_HEADER*>(file)->e_lfanew);
}

const IMAGE_NT_HEADERS64& Headers() {
    return HeadersOf(gNow->image);
}

const IMAGE_DATA_DIRECTORY& Directory(int number) {
    return Headers().OptionalHeader.DataDirectory[number];
}

void Unmap() {
    if (gNow->unwind != nullptr) RtlDeleteFunctionTable(gNow->unwind);
    if (gNow->image != nullptr) VirtualFree(gNow->image, 0, MEM_RELEASE);
    *gNow = {};
}

// Where the program or the library lies that this is part of.
std::string Folder() {
    HMODULE self = nullptr;
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCSTR>(&gMappings), &self);
    char path[MAX_PATH];
    const std::string text(path, GetModuleFileNameA(self, path, sizeof path));
    return text.substr(0, text.rfind('\\') + 1);
}

bool IsNative(const std::vector<char>& file) {
    if (file.size() < sizeof(IMAGE_DOS_HEADER) || std::memcmp(file.data(), "MZ", 2) != 0) return false;
    const auto& headers = HeadersOf(reinterpret_cast<const unsigned char*>(file.data()));
    return headers.Signature == IMAGE_NT_SIGNATURE && headers.FileHeader.Machine == IMAGE_FILE_MACHINE_AMD64 &&
           headers.OptionalHeader.Subsystem == IMAGE_SUBSYSTEM_NATIVE;
}

// False when the memory at the preferred address is all there is.
bool MapSections(const std::vector<char>& file) {
    const auto& headers = HeadersOf(reinterpret_cast<const unsigned char*>(file.data()));
    gNow->image = static_cast<unsigned char*>(
        VirtualAlloc(nullptr, headers.OptionalHeader.SizeOfImage, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    if (gNow->image == nullptr || gNow->image == reinterpret_cast<void*>(headers.OptionalHeader.ImageBase))
        return false;
    std::memcpy(gNow->image, file.data(), headers.OptionalHeader.SizeOfHeaders);
    const IMAGE_SECTION_HEADER* section = IMAGE_FIRST_SECTION(&headers);
    for (int i = 0; i < headers.FileHeader.NumberOfSections; ++i, ++section)
        std::memcpy(gNow->image + section->VirtualAddress, file.data() + section->PointerToRawData,
                    std::min(section->SizeOfRawData, section->Misc.VirtualSize));
    return true;
}

// Whether every relocation is of the one kind that such images have.
bool Relocate() {
    const ULONGLONG moved = reinterpret_cast<ULONGLONG>(gNow->image) - Headers().OptionalHeader.ImageBase;
    const IMAGE_DATA_DIRECTORY& directory = Directory(IMAGE_DIRECTORY_ENTRY_BASERELOC);
    DWORD at = directory.VirtualAddress;
    while (at < directory.VirtualAddress + directory.Size) {
        const auto* block = At<IMAGE_BASE_RELOCATION>(at);
        const auto* entry = reinterpret_cast<const WORD*>(block + 1);
        const auto* end = At<WORD>(at + block->SizeOfBlock);
        for (; entry < end; ++entry) {
            if (*entry >> 12 == IMAGE_REL_BASED_ABSOLUTE) continue;
            if (*entry >> 12 != IMAGE_REL_BASED_DIR64) return false;
            *At<ULONGLONG>(block->VirtualAddress + (*entry & 0xFFF)) += moved;
        }
        at += block->SizeOfBlock;
    }
    return directory.Size != 0;
}

// What the image's compiler asks for is the system's; nothing else is.
void* FindSystemRoutine(const std::string& name) {
    for (const char* known : {"__C_specific_handler", "memcpy", "memmove", "memset"})
        if (name == known)
            return reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), known));
    return nullptr;
}

bool Import(const Kernel& kernel, std::string& trouble) {
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
    return trouble.empty();
}

bool AddUnwindTables() {
    const IMAGE_DATA_DIRECTORY& directory = Directory(IMAGE_DIRECTORY_ENTRY_EXCEPTION);
    gNow->unwind = At<RUNTIME_FUNCTION>(directory.VirtualAddress);
    return directory.Size != 0 && RtlAddFunctionTable(gNow->unwind, directory.Size / sizeof(RUNTIME_FUNCTION),
                                                      reinterpret_cast<DWORD64>(gNow->image));
}

bool Protect() {
    DWORD before = 0;
    bool done = VirtualProtect(gNow->image, Headers().OptionalHeader.SizeOfHeaders, PAGE_READONLY, &before);
    const IMAGE_SECTION_HEADER* section = IMAGE_FIRST_SECTION(&Headers());
    for (int i = 0; i < Headers().FileHeader.NumberOfSections; ++i, ++section) {
        const DWORD rights = section->Characteristics;
        const DWORD wanted = rights & IMAGE_SCN_MEM_EXECUTE ? PAGE_EXECUTE_READ
                             : rights & IMAGE_SCN_MEM_WRITE ? PAGE_READWRITE
                                                            : PAGE_READONLY;
        done =
            VirtualProtect(gNow->image + section->VirtualAddress, section->Misc.VirtualSize, wanted, &before) &&
            done;
    }
    return done;
}

}  // namespace

void* Load(Role role, const std::string& name, const Kernel& kernel, std::string& trouble) {
    gNow = &gMappings[static_cast<int>(role)];
    Unmap();
    std::ifstream stream(Folder() + name, std::ios::binary);
    const std::vector<char> file{std::istreambuf_iterator<char>(stream), {}};
    if (!IsNative(file)) {
        trouble = name + " is no native image\n";
    } else if (!MapSections(file) || !Relocate()) {
        trouble = "the image cannot be moved\n";
    } else if (Import(kernel, trouble) && (!AddUnwindTables() || !Protect())) {
        trouble = "the image's unwind tables or sections are not as they should be\n";
    }
    if (!trouble.empty()) return nullptr;
    if (role == Role::Driver) traps::Watch(gNow->image, Headers().OptionalHeader.SizeOfImage, kernel);
    return gNow->image + Headers().OptionalHeader.AddressOfEntryPoint;
}

}  // namespace image
