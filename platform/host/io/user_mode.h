// What a program on the hosted machine does with a device: open it by name, control it, close it. Power-off
// takes with it what is open, without a request.
#pragma once
#include <string_view>
#include "platform/host/nt/ntzw.h"

namespace host {

// In whose name this thread opens devices: a process's rights, and those of a client that it acts for, if any.
struct Token {
    bool isAdministrator;
};
struct Program {
    Token process = {true};
    const Token* client = nullptr;
    SECURITY_IMPERSONATION_LEVEL level = SecurityImpersonation;
};
// From now on, for this thread; returns what was before.
Program SetProgram(const Program& program);

// Opens the device that `path` names (no path behind it) with `access`, and sends IRP_MJ_CREATE to the top of
// its stack. On failure `file` is null. STATUS_NO_SUCH_DEVICE while the device is being initialised;
// STATUS_ACCESS_DENIED for a second opener of an exclusive device, and for a program that is not an
// administrator's and wants to read or write a disk or its volumes. IRQL: PASSIVE_LEVEL.
[[nodiscard]] NTSTATUS OpenDevice(std::u16string_view path, ACCESS_MASK access, PFILE_OBJECT& file);

// Sends the control code. STATUS_ACCESS_DENIED without a request when the code asks for read or write access
// that the opener does not have. `returned` receives the bytes of `output` that were filled.
[[nodiscard]] NTSTATUS DeviceIoControl(PFILE_OBJECT file, ULONG code, const void* input, ULONG inputLength,
                                       void* output, ULONG outputLength, ULONG& returned);

// Sends IRP_MJ_CLEANUP, then IRP_MJ_CLOSE, and releases the file object.
void CloseDevice(PFILE_OBJECT file);

}  // namespace host
