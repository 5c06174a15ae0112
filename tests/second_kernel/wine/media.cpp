#include "media.h"
#include "protocol.h"
#include "tests/second_kernel/stage.h"

namespace {

constexpr ULONG kMediumTag = 0x4D52544B;  // KTRM, in memory order
constexpr ULONG kMedia = 8;

struct Medium {
    PUCHAR bytes;
    SIZE_T length;
};
KMUTEX gLock;  // guards gMedia
Medium gMedia[kMedia];

NTSTATUS OpenFile(ULONG number, ACCESS_MASK access, ULONG disposition, HANDLE* file) {
    WCHAR text[] = L"\\??\\" STORY_FOLDER L"\\medium0";
    text[RTL_NUMBER_OF(text) - 2] = static_cast<WCHAR>(L'0' + number);
    UNICODE_STRING path;
    RtlInitUnicodeString(&path, text);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb{};
    return ZwCreateFile(file, access | SYNCHRONIZE, &attributes, &iosb, nullptr, FILE_ATTRIBUTE_NORMAL, 0,
                        disposition, FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, nullptr, 0);
}

class Guard {
public:
    Guard() { (void)KeWaitForSingleObject(&gLock, Executive, KernelMode, FALSE, nullptr); }
    ~Guard() { (void)KeReleaseMutex(&gLock, FALSE); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
};

// A medium without a file is a new one.
NTSTATUS Load(ULONG number, const Medium& medium) {
    HANDLE file = nullptr;
    NTSTATUS status = OpenFile(number, FILE_READ_DATA, FILE_OPEN, &file);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) return STATUS_SUCCESS;
    if (!NT_SUCCESS(status)) return status;
    IO_STATUS_BLOCK iosb{};
    LARGE_INTEGER start{};
    status = ZwReadFile(file, nullptr, nullptr, nullptr, &iosb, medium.bytes, static_cast<ULONG>(medium.length),
                        &start, nullptr);
    (void)ZwClose(file);
    return NT_SUCCESS(status) && iosb.Information != medium.length ? STATUS_END_OF_FILE : status;
}

NTSTATUS Save(ULONG number, const Medium& medium) {
    HANDLE file = nullptr;
    NTSTATUS status = OpenFile(number, FILE_WRITE_DATA, FILE_OVERWRITE_IF, &file);
    if (!NT_SUCCESS(status)) return status;
    IO_STATUS_BLOCK iosb{};
    LARGE_INTEGER start{};
    status = ZwWriteFile(file, nullptr, nullptr, nullptr, &iosb, medium.bytes,
                         static_cast<ULONG>(medium.length), &start, nullptr);
    (void)ZwClose(file);
    return status;
}

}  // namespace

PUCHAR stage::Medium(ULONG number, SIZE_T bytes) {
    const Guard guard;
    ::Medium& medium = gMedia[number];
    if (medium.bytes) return medium.bytes;
    auto* block = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, bytes, kMediumTag));
    if (!block) return nullptr;
    RtlZeroMemory(block, bytes);
    medium = {block, bytes};
    (void)CheckStatus(Load(number, medium), STATUS_SUCCESS, "a medium read from its file");
    return block;
}

void shim::PrepareMedia() {
    KeInitializeMutex(&gLock, 0);
}

void shim::SaveMedia() {
    const Guard guard;
    for (ULONG number = 0; number < kMedia; ++number) {
        if (!gMedia[number].bytes) continue;
        (void)stage::CheckStatus(Save(number, gMedia[number]), STATUS_SUCCESS, "a medium written to its file");
    }
}
