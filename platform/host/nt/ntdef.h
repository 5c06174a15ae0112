// Basic types of the kernel's interfaces, with the platform's widths on LP64.
#pragma once
#include <cstddef>
#include <cstdint>

using VOID = void;
using PVOID = void*;
using CHAR = char;
using PCHAR = char*;
using PCSTR = const char*;
using UCHAR = unsigned char;
using PUCHAR = UCHAR*;
using BOOLEAN = UCHAR;
using LOGICAL = unsigned;
using PBOOLEAN = BOOLEAN*;
using CCHAR = char;
using SHORT = short;
using CSHORT = short;
using USHORT = unsigned short;
using PUSHORT = USHORT*;
using LONG = std::int32_t;  // 32 bits here too, as on the platform
using PLONG = LONG*;
using ULONG = std::uint32_t;
using PULONG = ULONG*;
using LONGLONG = long long;
using PLONGLONG = LONGLONG*;
using LONG64 = long long;
using ULONGLONG = unsigned long long;
using ULONG64 = unsigned long long;
using PULONG64 = ULONG64*;
using ULONG_PTR = std::uintptr_t;
using PULONG_PTR = ULONG_PTR*;
using SIZE_T = std::size_t;
using WCHAR = char16_t;
using PWCHAR = WCHAR*;
using PWSTR = WCHAR*;
using PCWSTR = const WCHAR*;
using HANDLE = void*;
using PHANDLE = HANDLE*;
using NTSTATUS = LONG;
using KIRQL = UCHAR;
using PKIRQL = KIRQL*;
using KPRIORITY = LONG;
using KPROCESSOR_MODE = CCHAR;
using ACCESS_MASK = ULONG;
using DEVICE_TYPE = ULONG;

#define TRUE 1
#define FALSE 0
#define NTAPI
#define IN
#define OUT
#define OPTIONAL
#define UNREFERENCED_PARAMETER(p) ((void)(p))
#define ANYSIZE_ARRAY 1

enum _MODE : CCHAR { KernelMode = 0, UserMode = 1 };

union LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
};
using PLARGE_INTEGER = LARGE_INTEGER*;

struct UNICODE_STRING {
    USHORT Length;         // bytes in use, a terminating zero not counted
    USHORT MaximumLength;  // bytes of Buffer
    PWSTR Buffer;
};
using PUNICODE_STRING = UNICODE_STRING*;
using PCUNICODE_STRING = const UNICODE_STRING*;

struct LIST_ENTRY {
    LIST_ENTRY* Flink;
    LIST_ENTRY* Blink;
};
using PLIST_ENTRY = LIST_ENTRY*;

struct GUID {
    std::uint32_t Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
};

struct OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
};
using POBJECT_ATTRIBUTES = OBJECT_ATTRIBUTES*;

inline constexpr ULONG OBJ_CASE_INSENSITIVE = 0x40;
inline constexpr ULONG OBJ_KERNEL_HANDLE = 0x200;

inline void InitializeObjectAttributes(POBJECT_ATTRIBUTES attributes, PUNICODE_STRING name, ULONG flags,
                                       HANDLE root, PVOID security) {
    *attributes = {sizeof(OBJECT_ATTRIBUTES), root, name, flags, security, nullptr};
}

#define CONTAINING_RECORD(address, type, field) \
    (reinterpret_cast<type*>(reinterpret_cast<char*>(address) - offsetof(type, field)))
#define FIELD_OFFSET(type, field) (static_cast<LONG>(offsetof(type, field)))
#define NT_SUCCESS(status) (static_cast<NTSTATUS>(status) >= 0)
