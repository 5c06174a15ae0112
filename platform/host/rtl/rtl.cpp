// Counted strings and the version.
#include "platform/host/nt/ntrtl.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "platform/host/check/verifier.h"
#include "platform/host/nt/ntke.h"
#include "platform/host/rtl/version.h"

namespace {

constexpr SIZE_T kLongestString = 0xFFFC;  // bytes, so that the terminating zero still fits the 16-bit length

SIZE_T LengthOf(PCWSTR text) {
    SIZE_T length = 0;
    while (text[length] != 0) ++length;
    return length * sizeof(WCHAR);
}

void TerminateIfRoom(PUNICODE_STRING string) {
    if (string->Length + sizeof(WCHAR) <= string->MaximumLength)
        string->Buffer[string->Length / sizeof(WCHAR)] = 0;
}

std::atomic<ULONG> gOsMajor = 10;
std::atomic<ULONG> gOsMinor = 0;
constexpr ULONG kOsBuild = 19041;
std::atomic<NTSTATUS> gOsFailure = STATUS_SUCCESS;

constexpr ULONG kPlatformNt = 2;
constexpr UCHAR kProductWorkstation = 1;

}  // namespace

void RtlInitUnicodeString(PUNICODE_STRING string, PCWSTR text) {
    *string = {0, 0, const_cast<PWSTR>(text)};
    if (text == nullptr) return;
    string->Length = static_cast<USHORT>(std::min(LengthOf(text), kLongestString));
    string->MaximumLength = static_cast<USHORT>(string->Length + sizeof(WCHAR));
}

void RtlCopyUnicodeString(PUNICODE_STRING to, PCUNICODE_STRING from) {
    to->Length = from == nullptr ? 0 : std::min(from->Length, to->MaximumLength);
    if (to->Length != 0) std::memmove(to->Buffer, from->Buffer, to->Length);
    if (from != nullptr) TerminateIfRoom(to);
}

NTSTATUS RtlAppendUnicodeToString(PUNICODE_STRING to, PCWSTR text) {
    if (text == nullptr) return STATUS_SUCCESS;
    const SIZE_T bytes = LengthOf(text);
    if (to->Length + bytes > to->MaximumLength) return STATUS_BUFFER_TOO_SMALL;
    std::memmove(to->Buffer + to->Length / sizeof(WCHAR), text, bytes);
    to->Length = static_cast<USHORT>(to->Length + bytes);
    TerminateIfRoom(to);
    return STATUS_SUCCESS;
}

LONG RtlCompareUnicodeString(PCUNICODE_STRING a, PCUNICODE_STRING b, BOOLEAN ignoreCase) {
    host::RequirePageable("RtlCompareUnicodeString", APC_LEVEL);
    const SIZE_T common = std::min(a->Length, b->Length) / sizeof(WCHAR);
    for (SIZE_T i = 0; i < common; ++i) {
        if (a->Buffer[i] == b->Buffer[i]) continue;
        const WCHAR x = ignoreCase ? RtlUpcaseUnicodeChar(a->Buffer[i]) : a->Buffer[i];
        const WCHAR y = ignoreCase ? RtlUpcaseUnicodeChar(b->Buffer[i]) : b->Buffer[i];
        if (x != y) return static_cast<LONG>(x) - static_cast<LONG>(y);
    }
    return static_cast<LONG>(a->Length) - static_cast<LONG>(b->Length);
}

NTSTATUS RtlGetVersion(PRTL_OSVERSIONINFOW info) {
    constexpr ULONG kShortForm = offsetof(RTL_OSVERSIONINFOEXW, wServicePackMajor);
    const NTSTATUS failure = gOsFailure.load();
    if (!NT_SUCCESS(failure)) return failure;
    const ULONG size = info->dwOSVersionInfoSize;
    if (size != kShortForm && size != sizeof(RTL_OSVERSIONINFOEXW)) return STATUS_INVALID_PARAMETER;
    info->dwMajorVersion = gOsMajor;
    info->dwMinorVersion = gOsMinor;
    info->dwBuildNumber = kOsBuild;
    info->dwPlatformId = kPlatformNt;
    std::memset(info->szCSDVersion, 0, sizeof info->szCSDVersion);
    if (size == kShortForm) return STATUS_SUCCESS;
    info->wServicePackMajor = info->wServicePackMinor = info->wSuiteMask = 0;
    info->wProductType = kProductWorkstation;
    info->wReserved = 0;
    return STATUS_SUCCESS;
}

namespace host {

void SetOsVersion(ULONG major, ULONG minor) {
    gOsMajor = major;
    gOsMinor = minor;
}

void FailOsVersion(NTSTATUS status) {
    gOsFailure.store(status);
}

}  // namespace host
