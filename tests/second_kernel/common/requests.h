// Requests as the managers, a file system or a program would send them, waited for. They go to exactly the
// device given. IRQL: PASSIVE_LEVEL.
#pragma once
#include "platform/host/io/device.h"
#include "platform/host/io/request.h"

// A read or write of `length` bytes at `offset`.
struct Transfer {
    UCHAR Major;
    LONGLONG Offset;
    PVOID Buffer;
    ULONG Length;
    PFILE_OBJECT File = nullptr;
    host::Pages Pages = host::Pages::NonPaged;
    ULONG Flags = IRP_NOCACHE;
};
[[nodiscard]] inline host::Outcome SendTransfer(PDEVICE_OBJECT device, const Transfer& transfer) {
    return host::Send(device, {.major = transfer.Major,
                               .pages = transfer.Pages,
                               .flags = transfer.Flags,
                               .length = transfer.Length,
                               .offset = transfer.Offset,
                               .buffer = transfer.Buffer,
                               .originalFile = transfer.File,
                               .stackFile = transfer.File});
}

[[nodiscard]] inline NTSTATUS ReadAt(PDEVICE_OBJECT device, LONGLONG offset, PVOID buffer, ULONG length) {
    return SendTransfer(device, {IRP_MJ_READ, offset, buffer, length}).status;
}

[[nodiscard]] inline NTSTATUS WriteAt(PDEVICE_OBJECT device, LONGLONG offset, const void* buffer, ULONG length,
                                      PFILE_OBJECT file = nullptr) {
    return SendTransfer(device, {IRP_MJ_WRITE, offset, const_cast<PVOID>(buffer), length, file}).status;
}

// A request without a buffer: create, cleanup, close, flush.
[[nodiscard]] inline NTSTATUS SendSimple(PDEVICE_OBJECT device, UCHAR major, PFILE_OBJECT file = nullptr) {
    return host::Send(device, {.major = major, .flags = 0, .originalFile = file, .stackFile = file}).status;
}

// A file object for requests, with the name in it; it only has to stay where it is.
inline void InitializeFile(FILE_OBJECT* file, PDEVICE_OBJECT device, const WCHAR* name) {
    *file = {};
    file->DeviceObject = device;
    RtlInitUnicodeString(&file->FileName, name);
}
