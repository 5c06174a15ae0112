#include "prove/windows/nt_file.h"

namespace proof {
namespace {

constexpr Status kEndOfFile = static_cast<Status>(0xC0000011);
constexpr Status kInvalidHandle = static_cast<Status>(0xC0000008);
constexpr OBJECT_INFORMATION_CLASS kObjectName = static_cast<OBJECT_INFORMATION_CLASS>(1);
constexpr std::uint32_t kNameBytes = 1024;

struct Mode {
    ACCESS_MASK access;
    ULONG disposition, options;
};

constexpr ULONG kFileOnly = FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT;
constexpr Mode kModes[] = {
    // in the order of Use
    {FILE_GENERIC_READ, FILE_OPEN, kFileOnly | FILE_NO_INTERMEDIATE_BUFFERING},
    {FILE_GENERIC_READ | FILE_GENERIC_WRITE, FILE_OPEN_IF, kFileOnly},
    {DELETE | SYNCHRONIZE, FILE_OPEN, kFileOnly | FILE_DELETE_ON_CLOSE},
    {FILE_GENERIC_READ | FILE_GENERIC_WRITE, FILE_OPEN,
     FILE_SYNCHRONOUS_IO_NONALERT | FILE_NO_INTERMEDIATE_BUFFERING},
    {FILE_GENERIC_READ | FILE_GENERIC_WRITE, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT},
};

UNICODE_STRING Named(const char16_t* text) {
    USHORT units = 0;
    while (text[units] != 0) ++units;
    UNICODE_STRING name;
    name.Length = static_cast<USHORT>(units * sizeof(char16_t));
    name.MaximumLength = name.Length;
    name.Buffer = const_cast<PWSTR>(reinterpret_cast<const wchar_t*>(text));
    return name;
}

// Of a transfer: one that fell short is none.
Status Whole(NTSTATUS status, const IO_STATUS_BLOCK& io, std::uint32_t length) {
    return NT_SUCCESS(status) && io.Information != length ? kEndOfFile : status;
}

}  // namespace

Status NtFile::Open(const char16_t* name, Use use) {
    Close();
    const Mode& mode = kModes[static_cast<int>(use)];
    UNICODE_STRING text = Named(name);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK io{};
    const Status status = NtCreateFile(&handle_, mode.access, &attributes, &io, nullptr, FILE_ATTRIBUTE_NORMAL,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, mode.disposition,
                                       mode.options, nullptr, 0);
    if (!Succeeded(status)) handle_ = nullptr;
    return status;
}

void NtFile::Close() {
    if (handle_ != nullptr) NtClose(handle_);
    handle_ = nullptr;
}

Status NtFile::Read(std::uint64_t offset, void* bytes, std::uint32_t length) {
    IO_STATUS_BLOCK io{};
    LARGE_INTEGER at;
    at.QuadPart = static_cast<LONGLONG>(offset);
    return Whole(NtReadFile(handle_, nullptr, nullptr, nullptr, &io, bytes, length, &at, nullptr), io, length);
}

Status NtFile::Write(std::uint64_t offset, const void* bytes, std::uint32_t length) {
    IO_STATUS_BLOCK io{};
    LARGE_INTEGER at;
    at.QuadPart = static_cast<LONGLONG>(offset);
    return Whole(NtWriteFile(handle_, nullptr, nullptr, nullptr, &io, bytes, length, &at, nullptr), io, length);
}

Status NtFile::Flush() {
    IO_STATUS_BLOCK io{};
    return NtFlushBuffersFile(handle_, &io);
}

Status NtFile::Ask(std::uint32_t code, const void* input, std::uint32_t inputLength, void* output,
                   std::uint32_t outputLength, std::uint32_t* returned) {
    if (handle_ == nullptr) return kInvalidHandle;
    IO_STATUS_BLOCK io{};
    const Status status = NtDeviceIoControlFile(handle_, nullptr, nullptr, nullptr, &io, code,
                                                const_cast<void*>(input), inputLength, output, outputLength);
    *returned = Succeeded(status) ? static_cast<std::uint32_t>(io.Information) : 0;
    return status;
}

Status NtFile::NameOf(char16_t* name, std::uint32_t units) {
    alignas(UNICODE_STRING) std::uint8_t buffer[kNameBytes];
    ULONG length = 0;
    const Status status = NtQueryObject(handle_, kObjectName, buffer, sizeof buffer, &length);
    if (!Succeeded(status)) return status;
    const auto* found = reinterpret_cast<const UNICODE_STRING*>(buffer);
    std::uint32_t count = found->Length / sizeof(char16_t);
    if (count > units - 1) count = units - 1;
    for (std::uint32_t i = 0; i < count; ++i) name[i] = static_cast<char16_t>(found->Buffer[i]);
    name[count] = 0;
    return status;
}

}  // namespace proof
