// Requests as the managers, a file system or a program would send them, made by hand and waited for. IRQL:
// PASSIVE_LEVEL.
#pragma once
#include "platform/kernel.h"

struct Reply {
    NTSTATUS Status;
    ULONG_PTR Information;
};

// A read or write of `length` bytes at `offset`, sent to exactly `device`. `buffer` is non-paged pool.
struct Transfer {
    UCHAR Major;
    LONGLONG Offset;
    PVOID Buffer;
    ULONG Length;
    PFILE_OBJECT File = nullptr;
    bool LeaveUnlocked = false;  // the driver below locks the pages itself
};
[[nodiscard]] Reply SendTransfer(PDEVICE_OBJECT device, const Transfer& transfer);
[[nodiscard]] NTSTATUS ReadAt(PDEVICE_OBJECT device, LONGLONG offset, PVOID buffer, ULONG length);
[[nodiscard]] NTSTATUS WriteAt(PDEVICE_OBJECT device, LONGLONG offset, const void* buffer, ULONG length,
                               PFILE_OBJECT file = nullptr);

// A request without a buffer: create, cleanup, close, flush.
[[nodiscard]] Reply SendSimple(PDEVICE_OBJECT device, UCHAR major, PFILE_OBJECT file = nullptr);
[[nodiscard]] NTSTATUS SendPnp(PDEVICE_OBJECT device, UCHAR minor);
[[nodiscard]] NTSTATUS SendPower(PDEVICE_OBJECT device);
// Buffered: one system buffer, `input` in and `output` out; either may be null, and the system buffer is
// missing when both lengths are 0.
struct Control {
    ULONG Code;
    const void* Input = nullptr;
    ULONG InputLength = 0;
    PVOID Output = nullptr;
    ULONG OutputLength = 0;
    PFILE_OBJECT File = nullptr;
};
[[nodiscard]] Reply SendControl(PDEVICE_OBJECT device, const Control& control);

// A file object for requests, with the name in it; it only has to stay where it is.
void InitializeFile(FILE_OBJECT* file, PDEVICE_OBJECT device, const WCHAR* name);
