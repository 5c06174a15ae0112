#include "tests/second_kernel/wine/native_program.h"
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <thread>
#include <vector>
#include "platform/host/io/device.h"
#include "platform/host/io/user_mode.h"
#include "platform/host/object/namespace.h"
#include "tests/second_kernel/common/requests.h"
#include "tests/second_kernel/wine/image.h"

namespace {

// How a thread of the program leaves its frames.
struct Leave {
    native::End end;
    NTSTATUS status;
};

struct Thread {
    NTSTATUS (*start)(PVOID);
    PVOID context;
};

// What a handle of the program stands for.
struct Open {
    HANDLE file = nullptr;  // of the host kernel's
    PFILE_OBJECT device = nullptr;
    std::u16string name;
};

std::atomic<bool> gIsOff;
std::vector<std::thread> gThreads;

void LeaveWhenOff() {
    if (gIsOff) throw Leave{native::End::PowerOff, STATUS_SUCCESS};
}

std::u16string NameOf(PDEVICE_OBJECT device) {
    alignas(OBJECT_NAME_INFORMATION) UCHAR buffer[512];
    auto* name = reinterpret_cast<POBJECT_NAME_INFORMATION>(buffer);
    ULONG length = 0;
    const NTSTATUS status = ObQueryNameString(device, name, sizeof buffer, &length);
    return NT_SUCCESS(status) ? std::u16string(host::View(&name->Name)) : std::u16string();
}

NTSTATUS OpenDevice(const host::ResolvedPath& path, const std::u16string& name, ACCESS_MASK access,
                    Open& open) {
    const NTSTATUS status = host::OpenDevice(name, access, open.device);
    if (NT_SUCCESS(status) && path.provider != nullptr) open.device->Flags |= FO_VOLUME_OPEN;
    return status;
}

// ---- ntdll --------------------------------------------------------------------------------------------------

NTSTATUS CreateFile(PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes, PIO_STATUS_BLOCK io,
                    PLARGE_INTEGER size, ULONG fileAttributes, ULONG share, ULONG disposition, ULONG options,
                    PVOID ea, ULONG eaLength) {
    constexpr ULONG kDeleteOnClose = 0x1000;
    LeaveWhenOff();
    auto open = std::make_unique<Open>();
    const std::u16string name(host::View(attributes->ObjectName));
    host::ResolvedPath path;
    NTSTATUS status = host::ResolvePath(name, path);
    if (!NT_SUCCESS(status)) return status;
    open->name = NameOf(path.device) + path.rest;
    if (path.rest.empty())
        status = OpenDevice(path, name, access, *open);
    else if ((options & kDeleteOnClose) != 0)
        status = ZwDeleteFile(attributes);
    else
        status = ZwCreateFile(&open->file, access, attributes, io, size, fileAttributes, share, disposition,
                              options, ea, eaLength);
    if (NT_SUCCESS(status)) *handle = open.release();
    return status;
}

NTSTATUS Close(HANDLE handle) {
    LeaveWhenOff();
    const std::unique_ptr<Open> open(static_cast<Open*>(handle));
    if (open->device != nullptr) host::CloseDevice(open->device);
    return open->file != nullptr ? ZwClose(open->file) : STATUS_SUCCESS;
}

// NtReadFile and NtWriteFile.
template <UCHAR major, auto MoveInFile>
NTSTATUS MoveFile(HANDLE handle, HANDLE event, PVOID routine, PVOID context, PIO_STATUS_BLOCK io, PVOID buffer,
                  ULONG length, PLARGE_INTEGER offset, PULONG key) {
    LeaveWhenOff();
    const Open& open = *static_cast<Open*>(handle);
    if (open.device == nullptr)
        return MoveInFile(open.file, event, routine, context, io, buffer, length, offset, key);
    const host::Outcome outcome = SendTransfer(host::TopOfStack(open.device->DeviceObject),
                                               {major, offset->QuadPart, buffer, length, open.device});
    *io = {{outcome.status}, outcome.information};
    return outcome.status;
}

NTSTATUS FlushBuffersFile(HANDLE handle, PIO_STATUS_BLOCK) {
    LeaveWhenOff();
    const Open& open = *static_cast<Open*>(handle);
    if (open.device == nullptr) return STATUS_SUCCESS;  // writes of files go through
    return SendSimple(host::TopOfStack(open.device->DeviceObject), IRP_MJ_FLUSH_BUFFERS, open.device);
}

NTSTATUS DeviceIoControlFile(HANDLE handle, HANDLE, PVOID, PVOID, PIO_STATUS_BLOCK io, ULONG code, PVOID input,
                             ULONG inputLength, PVOID output, ULONG outputLength) {
    LeaveWhenOff();
    ULONG returned = 0;
    const NTSTATUS status = host::DeviceIoControl(static_cast<Open*>(handle)->device, code, input, inputLength,
                                                  output, outputLength, returned);
    *io = {{status}, returned};
    return status;
}

NTSTATUS QueryObject(HANDLE handle, ULONG kind, PVOID buffer, ULONG length, PULONG needed) {
    constexpr ULONG kObjectName = 1;
    LeaveWhenOff();
    const std::u16string& name = static_cast<Open*>(handle)->name;
    const auto bytes = static_cast<USHORT>(name.size() * sizeof(char16_t));
    *needed = static_cast<ULONG>(sizeof(UNICODE_STRING) + bytes);
    if (kind != kObjectName || length < *needed) return STATUS_INVALID_PARAMETER;
    auto* found = static_cast<PUNICODE_STRING>(buffer);
    *found = {bytes, bytes, reinterpret_cast<PWSTR>(found + 1)};
    std::memcpy(found->Buffer, name.data(), bytes);
    return STATUS_SUCCESS;
}

NTSTATUS DelayExecution(BOOLEAN, const LARGE_INTEGER* interval) {
    LeaveWhenOff();
    std::this_thread::sleep_for(std::chrono::nanoseconds(interval->QuadPart * -100));
    return STATUS_SUCCESS;
}

void RunThread(Thread thread) {
    try {
        thread.start(thread.context);
    } catch (const Leave&) {
    }
}

NTSTATUS CreateUserThread(HANDLE, PVOID, BOOLEAN, ULONG, SIZE_T, SIZE_T, NTSTATUS (*start)(PVOID),
                          PVOID context, PHANDLE thread, PVOID) {
    gThreads.emplace_back(RunThread, Thread{start, context});
    *thread = nullptr;
    return STATUS_SUCCESS;
}

NTSTATUS AdjustPrivilege(ULONG, BOOLEAN, BOOLEAN, BOOLEAN* before) {
    *before = FALSE;
    return STATUS_SUCCESS;
}

NTSTATUS ShutdownSystem(ULONG action) {
    constexpr ULONG kPowerOff = 2;
    if (action != kPowerOff) return STATUS_INVALID_PARAMETER;
    throw Leave{native::End::PowerOff, STATUS_SUCCESS};
}

NTSTATUS TerminateProcess(HANDLE, NTSTATUS status) {
    throw Leave{native::End::Ended, status};
}

struct Export {
    std::string_view name;
    void* address;
};
template <class Routine>
Export Named(std::string_view name, Routine* routine) {
    return {name, reinterpret_cast<void*>(routine)};
}
const Export kExports[] = {
    Named("NtClose", Close),
    Named("NtCreateFile", CreateFile),
    Named("NtDelayExecution", DelayExecution),
    Named("NtDeviceIoControlFile", DeviceIoControlFile),
    Named("NtFlushBuffersFile", FlushBuffersFile),
    Named("NtQueryObject", QueryObject),
    Named("NtReadFile", MoveFile<IRP_MJ_READ, ZwReadFile>),
    Named("NtShutdownSystem", ShutdownSystem),
    Named("NtTerminateProcess", TerminateProcess),
    Named("NtWriteFile", MoveFile<IRP_MJ_WRITE, ZwWriteFile>),
    Named("RtlAdjustPrivilege", AdjustPrivilege),
    Named("RtlCreateUserThread", CreateUserThread),
};

void* FindExport(const char* name) {
    for (const Export& each : kExports)
        if (each.name == name) return each.address;
    return nullptr;
}

// ---- the process --------------------------------------------------------------------------------------------

// As far as the program looks into them; the system's own, on 64 bits.
struct Parameters {
    UCHAR unused[0x70];
    UNICODE_STRING commandLine;
};
struct Environment {
    UCHAR unused[0x20];
    Parameters* parameters;
};

}  // namespace

native::End native::Run(const std::string& image, const std::u16string& commandLine, NTSTATUS& status) {
    std::string trouble;
    void* entry = image::Load(image::Role::Program, image, {FindExport, nullptr, nullptr}, trouble);
    std::fputs(trouble.c_str(), stderr);
    if (entry == nullptr) return End::Trouble;
    Parameters parameters{};
    RtlInitUnicodeString(&parameters.commandLine, commandLine.c_str());
    Environment environment{{}, &parameters};
    gIsOff = false;
    try {
        reinterpret_cast<void (*)(Environment*)>(entry)(&environment);
    } catch (const Leave& leave) {
        status = leave.status;
        return leave.end;
    }
    std::fputs("the program returned\n", stderr);
    return End::Trouble;
}

void native::EndThreads() {
    gIsOff = true;
    for (std::thread& thread : gThreads) thread.join();
    gThreads.clear();
}
