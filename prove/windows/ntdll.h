// What the native program calls of ntdll beyond what the headers declare; all of it is there from Windows 7 on.
#pragma once
#include <windows.h>
#include <winternl.h>
#include <cstdint>

extern "C" {
NTSYSAPI NTSTATUS NTAPI NtReadFile(HANDLE file, HANDLE event, PIO_APC_ROUTINE routine, PVOID context,
                                   PIO_STATUS_BLOCK io, PVOID buffer, ULONG length, PLARGE_INTEGER offset,
                                   PULONG key);
NTSYSAPI NTSTATUS NTAPI NtWriteFile(HANDLE file, HANDLE event, PIO_APC_ROUTINE routine, PVOID context,
                                    PIO_STATUS_BLOCK io, const void* buffer, ULONG length,
                                    PLARGE_INTEGER offset, PULONG key);
NTSYSAPI NTSTATUS NTAPI NtFlushBuffersFile(HANDLE file, PIO_STATUS_BLOCK io);
NTSYSAPI NTSTATUS NTAPI NtDelayExecution(BOOLEAN alertable, const LARGE_INTEGER* interval);
NTSYSAPI NTSTATUS NTAPI NtDisplayString(PUNICODE_STRING text);
NTSYSAPI NTSTATUS NTAPI NtShutdownSystem(ULONG action);
NTSYSAPI NTSTATUS NTAPI NtTerminateProcess(HANDLE process, NTSTATUS status);
NTSYSAPI NTSTATUS NTAPI RtlAdjustPrivilege(ULONG privilege, BOOLEAN enable, BOOLEAN thread, PBOOLEAN before);
NTSYSAPI NTSTATUS NTAPI RtlCreateUserThread(HANDLE process, PVOID descriptor, BOOLEAN suspended, ULONG zeroBits,
                                            SIZE_T reserve, SIZE_T commit, LPTHREAD_START_ROUTINE start,
                                            PVOID context, PHANDLE thread, PVOID client);
}

namespace proof {

inline constexpr ULONG kShutdownPowerOff = 2;
inline constexpr ULONG kShutdownPrivilege = 19;

}  // namespace proof
