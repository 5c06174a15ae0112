// Objects, system threads, files and the registry.
#pragma once
#include "platform/host/nt/ntio.h"

struct OBJECT_TYPE;
using POBJECT_TYPE = OBJECT_TYPE*;
struct OBJECT_NAME_INFORMATION {
    UNICODE_STRING Name;  // its characters follow in the caller's buffer
};
using POBJECT_NAME_INFORMATION = OBJECT_NAME_INFORMATION*;
using PKSTART_ROUTINE = void (*)(PVOID);

inline constexpr ACCESS_MASK SYNCHRONIZE = 0x00100000;
inline constexpr ACCESS_MASK DELETE = 0x00010000;
inline constexpr ACCESS_MASK FILE_READ_DATA = 0x1;
inline constexpr ACCESS_MASK FILE_WRITE_DATA = 0x2;
inline constexpr ACCESS_MASK GENERIC_READ = 0x80000000;
inline constexpr ACCESS_MASK THREAD_ALL_ACCESS = 0x1FFFFF;
inline constexpr ACCESS_MASK KEY_QUERY_VALUE = 0x1;
inline constexpr ACCESS_MASK KEY_SET_VALUE = 0x2;
inline constexpr ULONG FILE_SHARE_READ = 0x1;
inline constexpr ULONG FILE_SHARE_WRITE = 0x2;
inline constexpr ULONG FILE_SHARE_DELETE = 0x4;
inline constexpr ULONG FILE_OPEN = 1;
inline constexpr ULONG FILE_CREATE = 2;
inline constexpr ULONG FILE_OPEN_IF = 3;
inline constexpr ULONG FILE_OVERWRITE = 4;
inline constexpr ULONG FILE_OVERWRITE_IF = 5;
inline constexpr ULONG FILE_OPENED = 1;
inline constexpr ULONG FILE_CREATED = 2;
inline constexpr ULONG FILE_OVERWRITTEN = 3;
inline constexpr ULONG FILE_WRITE_THROUGH = 0x2;
inline constexpr ULONG FILE_NO_INTERMEDIATE_BUFFERING = 0x8;
inline constexpr ULONG FILE_SYNCHRONOUS_IO_NONALERT = 0x20;
inline constexpr ULONG FILE_ATTRIBUTE_READONLY = 0x1;
inline constexpr ULONG FILE_ATTRIBUTE_HIDDEN = 0x2;
inline constexpr ULONG FILE_ATTRIBUTE_SYSTEM = 0x4;
inline constexpr ULONG FILE_ATTRIBUTE_NORMAL = 0x80;
inline constexpr ULONG FILE_ATTRIBUTE_COMPRESSED = 0x800;
inline constexpr ULONG FILE_ATTRIBUTE_ENCRYPTED = 0x4000;
inline constexpr USHORT COMPRESSION_FORMAT_NONE = 0;
inline constexpr ULONG FSCTL_SET_COMPRESSION = 0x9C040;
inline constexpr ULONG REG_OPTION_NON_VOLATILE = 0;
inline constexpr ULONG REG_OPENED_EXISTING_KEY = 2;
inline constexpr ULONG REG_SZ = 1;
inline constexpr ULONG REG_BINARY = 3;
inline constexpr ULONG REG_DWORD = 4;

enum KEY_VALUE_INFORMATION_CLASS { KeyValuePartialInformation = 2 };
struct KEY_VALUE_PARTIAL_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG DataLength;
    UCHAR Data[1];
};
using PKEY_VALUE_PARTIAL_INFORMATION = KEY_VALUE_PARTIAL_INFORMATION*;

[[nodiscard]] NTSTATUS ObQueryNameString(PVOID object, POBJECT_NAME_INFORMATION info, ULONG length,
                                         PULONG returnLength);
[[nodiscard]] NTSTATUS ObReferenceObjectByHandle(HANDLE handle, ACCESS_MASK access, POBJECT_TYPE type,
                                                 KPROCESSOR_MODE mode, PVOID* object, PVOID handleInformation);
void ObfReferenceObject(PVOID object);
void ObfDereferenceObject(PVOID object);
inline void ObReferenceObject(PVOID object) {
    ObfReferenceObject(object);
}
inline void ObDereferenceObject(PVOID object) {
    ObfDereferenceObject(object);
}

[[nodiscard]] NTSTATUS PsCreateSystemThread(PHANDLE handle, ULONG access, POBJECT_ATTRIBUTES attributes,
                                            HANDLE process, PVOID clientId, PKSTART_ROUTINE routine,
                                            PVOID context);
NTSTATUS PsTerminateSystemThread(NTSTATUS status);  // does not return to its caller

[[nodiscard]] NTSTATUS ZwCreateFile(PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes,
                                    PIO_STATUS_BLOCK iosb, PLARGE_INTEGER allocationSize, ULONG fileAttributes,
                                    ULONG share, ULONG disposition, ULONG options, PVOID ea, ULONG eaLength);
[[nodiscard]] NTSTATUS ZwReadFile(HANDLE file, HANDLE event, PVOID apc, PVOID apcContext, PIO_STATUS_BLOCK iosb,
                                  PVOID buffer, ULONG length, PLARGE_INTEGER offset, PULONG key);
[[nodiscard]] NTSTATUS ZwWriteFile(HANDLE file, HANDLE event, PVOID apc, PVOID apcContext,
                                   PIO_STATUS_BLOCK iosb, PVOID buffer, ULONG length, PLARGE_INTEGER offset,
                                   PULONG key);
enum FILE_INFORMATION_CLASS { FileBasicInformation = 4 };
struct FILE_BASIC_INFORMATION {
    LARGE_INTEGER CreationTime, LastAccessTime, LastWriteTime, ChangeTime;
    ULONG FileAttributes;
};
[[nodiscard]] NTSTATUS ZwQueryInformationFile(HANDLE file, PIO_STATUS_BLOCK iosb, PVOID info, ULONG length,
                                              FILE_INFORMATION_CLASS kind);
[[nodiscard]] NTSTATUS ZwFsControlFile(HANDLE file, HANDLE event, PVOID apc, PVOID apcContext,
                                       PIO_STATUS_BLOCK iosb, ULONG code, PVOID input, ULONG inputLength,
                                       PVOID output, ULONG outputLength);
NTSTATUS ZwDeleteFile(POBJECT_ATTRIBUTES attributes);
NTSTATUS ZwClose(HANDLE handle);
[[nodiscard]] NTSTATUS ZwCreateKey(PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes,
                                   ULONG titleIndex, PUNICODE_STRING keyClass, ULONG options,
                                   PULONG disposition);
[[nodiscard]] NTSTATUS ZwQueryValueKey(HANDLE key, PUNICODE_STRING name, KEY_VALUE_INFORMATION_CLASS kind,
                                       PVOID info, ULONG length, PULONG resultLength);
[[nodiscard]] NTSTATUS ZwSetValueKey(HANDLE key, PUNICODE_STRING name, ULONG titleIndex, ULONG type, PVOID data,
                                     ULONG length);
NTSTATUS ZwDeleteValueKey(HANDLE key, PUNICODE_STRING name);
NTSTATUS ZwFlushKey(HANDLE key);
PKEVENT IoCreateNotificationEvent(PUNICODE_STRING name, PHANDLE handle);
