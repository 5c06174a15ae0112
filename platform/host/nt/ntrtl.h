// Run-time library: counted strings, memory, time fields, version, diagnostics.
#pragma once
#include "platform/host/nt/ntstatus.h"

struct TIME_FIELDS {
    CSHORT Year, Month, Day, Hour, Minute, Second, Milliseconds, Weekday;
};
using PTIME_FIELDS = TIME_FIELDS*;

struct RTL_OSVERSIONINFOEXW {
    ULONG dwOSVersionInfoSize;
    ULONG dwMajorVersion;
    ULONG dwMinorVersion;
    ULONG dwBuildNumber;
    ULONG dwPlatformId;
    WCHAR szCSDVersion[128];
    USHORT wServicePackMajor;
    USHORT wServicePackMinor;
    USHORT wSuiteMask;
    UCHAR wProductType;
    UCHAR wReserved;
};
using RTL_OSVERSIONINFOW = RTL_OSVERSIONINFOEXW;  // the short form is a prefix; the size field tells
using PRTL_OSVERSIONINFOW = RTL_OSVERSIONINFOW*;
static_assert(sizeof(RTL_OSVERSIONINFOEXW) == 284);

void RtlInitUnicodeString(PUNICODE_STRING string, PCWSTR text);
void RtlCopyUnicodeString(PUNICODE_STRING to, PCUNICODE_STRING from);
[[nodiscard]] NTSTATUS RtlAppendUnicodeToString(PUNICODE_STRING to, PCWSTR text);
LONG RtlCompareUnicodeString(PCUNICODE_STRING a, PCUNICODE_STRING b, BOOLEAN ignoreCase);
WCHAR RtlUpcaseUnicodeChar(WCHAR c);
void RtlTimeToTimeFields(PLARGE_INTEGER time, PTIME_FIELDS fields);
[[nodiscard]] NTSTATUS RtlGetVersion(PRTL_OSVERSIONINFOW info);
void RtlAssert(PVOID condition, PVOID file, ULONG line, PCHAR message);
// Formats as the platform does (%wZ, %p, %I64x, %I64u, %08x...) into the host kernel's diagnostics sink.
ULONG DbgPrint(PCSTR format, ...);

inline void RtlZeroMemory(PVOID to, SIZE_T bytes) {
    __builtin_memset(to, 0, bytes);
}
inline void RtlCopyMemory(PVOID to, const void* from, SIZE_T bytes) {
    __builtin_memcpy(to, from, bytes);
}
inline void RtlMoveMemory(PVOID to, const void* from, SIZE_T bytes) {
    __builtin_memmove(to, from, bytes);
}
inline void RtlFillMemory(PVOID to, SIZE_T bytes, int fill) {
    __builtin_memset(to, fill, bytes);
}
inline SIZE_T RtlCompareMemory(const void* a, const void* b, SIZE_T bytes) {
    SIZE_T i = 0;
    while (i < bytes && static_cast<const UCHAR*>(a)[i] == static_cast<const UCHAR*>(b)[i]) ++i;
    return i;
}

inline void InitializeListHead(PLIST_ENTRY head) {
    head->Flink = head->Blink = head;
}
inline BOOLEAN IsListEmpty(const LIST_ENTRY* head) {
    return head->Flink == head;
}
