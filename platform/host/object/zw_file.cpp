#include "platform/host/check/injector.h"
#include "platform/host/object/namespace.h"
#include "platform/host/object/object.h"
#include "platform/host/check/host_memory.h"
#include "platform/host/check/verifier.h"
#include "platform/host/sync/host_lock.h"

namespace host {
namespace {

// One open by a driver. Its transfers run one at a time, as those of a synchronous file object do; `transfer`
// is held over the file system's call, and it guards the order of those calls rather than a field.
struct FileHandle {
    std::unique_ptr<OpenFile> file;
    USHORT sectorSize;  // transfers must be whole sectors when this is not 0
    bool readsAndWrites;
    HostLock transfer;

    FileHandle(std::unique_ptr<OpenFile> opened, USHORT sectors, ACCESS_MASK access)
        : file(std::move(opened)),
          sectorSize(sectors),
          readsAndWrites((access & FILE_READ_DATA) != 0 && (access & FILE_WRITE_DATA) != 0) {}
};

NTSTATUS Resolve(POBJECT_ATTRIBUTES attributes, ResolvedPath& resolved) {
    if (attributes->RootDirectory != nullptr || attributes->ObjectName == nullptr)
        return STATUS_INVALID_PARAMETER;
    const NTSTATUS status = ResolvePath(View(attributes->ObjectName), resolved);
    if (!NT_SUCCESS(status)) return status;
    if (resolved.provider == nullptr) return STATUS_UNRECOGNIZED_VOLUME;
    return resolved.rest.empty() ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
}

NTSTATUS Open(PHANDLE handle, FileOpen request, POBJECT_ATTRIBUTES attributes, ULONG_PTR& information) {
    if (InjectFault(Fault::FileOpen)) return STATUS_INSUFFICIENT_RESOURCES;
    ResolvedPath path;
    NTSTATUS status = Resolve(attributes, path);
    if (!NT_SUCCESS(status)) return status;
    request.path = path.rest;
    const bool sectors = (request.options & FILE_NO_INTERMEDIATE_BUFFERING) != 0;
    const USHORT sectorSize = sectors ? path.device->SectorSize : USHORT{0};
    std::unique_ptr<OpenFile> file;
    status = path.provider->Open(request, file, information);
    if (!NT_SUCCESS(status)) return status;
    ObjectRef<FileHandle> object(
        MakeObject<FileHandle>(ObjectType::OpenFile, std::move(file), sectorSize, request.access));
    *handle = InsertHandle(object.get());
    return status;
}

// Checks what a transfer of either direction must satisfy, runs it, and reports it in the status block.
template <class Run>
NTSTATUS Transfer(const char* routine, HANDLE handle, PIO_STATUS_BLOCK iosb, PLARGE_INTEGER offset,
                  ULONG length, const Run& run) {
    RequirePageable(routine, PASSIVE_LEVEL);
    ObjectRef<FileHandle> file(static_cast<FileHandle*>(LookupHandle(handle, ObjectType::OpenFile)));
    if (!file) return STATUS_INVALID_HANDLE;
    if (offset == nullptr || offset->QuadPart < 0) return STATUS_INVALID_PARAMETER;
    const USHORT sector = file->sectorSize;
    if (sector != 0 && (length % sector != 0 || offset->QuadPart % sector != 0))
        return STATUS_INVALID_PARAMETER;
    ULONG done = 0;
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    if (!InjectFault(Fault::FileIo)) {
        const HostGuard one(file->transfer);
        status = WithinMemory([&] { return run(*file->file, offset->QuadPart, done); });
    }
    iosb->Status = status;
    iosb->Information = NT_SUCCESS(status) ? done : 0;
    return status;
}

}  // namespace
}  // namespace host

NTSTATUS ZwCreateFile(PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes, PIO_STATUS_BLOCK iosb,
                      PLARGE_INTEGER, ULONG fileAttributes, ULONG share, ULONG disposition, ULONG options,
                      PVOID, ULONG) {
    host::RequirePageable("ZwCreateFile", PASSIVE_LEVEL);
    ULONG_PTR information = 0;
    const NTSTATUS status = host::WithinMemory([&] {
        return host::Open(handle, {{}, access, share, disposition, options, fileAttributes}, attributes,
                          information);
    });
    iosb->Status = status;
    iosb->Information = NT_SUCCESS(status) ? information : 0;
    return status;
}

NTSTATUS ZwReadFile(HANDLE file, HANDLE, PVOID, PVOID, PIO_STATUS_BLOCK iosb, PVOID buffer, ULONG length,
                    PLARGE_INTEGER offset, PULONG) {
    return host::Transfer(
        "ZwReadFile", file, iosb, offset, length,
        [&](host::OpenFile& open, LONGLONG at, ULONG& done) { return open.Read(at, buffer, length, done); });
}

NTSTATUS ZwWriteFile(HANDLE file, HANDLE, PVOID, PVOID, PIO_STATUS_BLOCK iosb, PVOID buffer, ULONG length,
                     PLARGE_INTEGER offset, PULONG) {
    return host::Transfer(
        "ZwWriteFile", file, iosb, offset, length,
        [&](host::OpenFile& open, LONGLONG at, ULONG& done) { return open.Write(at, buffer, length, done); });
}

NTSTATUS ZwQueryInformationFile(HANDLE handle, PIO_STATUS_BLOCK iosb, PVOID info, ULONG length,
                                FILE_INFORMATION_CLASS kind) {
    host::RequireIrql("ZwQueryInformationFile", PASSIVE_LEVEL);
    host::ObjectRef<host::FileHandle> file(
        static_cast<host::FileHandle*>(host::LookupHandle(handle, host::ObjectType::OpenFile)));
    if (!file) return STATUS_INVALID_HANDLE;
    if (kind != FileBasicInformation || length < sizeof(FILE_BASIC_INFORMATION))
        return STATUS_INVALID_PARAMETER;
    auto* basic = static_cast<FILE_BASIC_INFORMATION*>(info);
    *basic = {};
    basic->FileAttributes = file->file->Attributes();
    *iosb = {{STATUS_SUCCESS}, sizeof(*basic)};
    return STATUS_SUCCESS;
}

// The one control that a driver sends: another one ends the file system's way.
NTSTATUS ZwFsControlFile(HANDLE handle, HANDLE, PVOID, PVOID, PIO_STATUS_BLOCK iosb, ULONG code, PVOID input,
                         ULONG inputLength, PVOID, ULONG) {
    host::RequireIrql("ZwFsControlFile", PASSIVE_LEVEL);
    host::ObjectRef<host::FileHandle> file(
        static_cast<host::FileHandle*>(host::LookupHandle(handle, host::ObjectType::OpenFile)));
    if (!file) return STATUS_INVALID_HANDLE;
    if (code != FSCTL_SET_COMPRESSION) return STATUS_INVALID_DEVICE_REQUEST;
    if (!file->readsAndWrites) return STATUS_ACCESS_DENIED;
    if (inputLength < sizeof(USHORT) || *static_cast<USHORT*>(input) != COMPRESSION_FORMAT_NONE)
        return STATUS_INVALID_PARAMETER;
    *iosb = {{host::WithinMemory([&] { return file->file->Decompress(); })}, 0};
    return iosb->Status;
}

// Deleting opens the file, so the same fault stands for it.
NTSTATUS ZwDeleteFile(POBJECT_ATTRIBUTES attributes) {
    host::RequirePageable("ZwDeleteFile", PASSIVE_LEVEL);
    if (host::InjectFault(host::Fault::FileOpen)) return STATUS_INSUFFICIENT_RESOURCES;
    return host::WithinMemory([&] {
        host::ResolvedPath path;
        const NTSTATUS status = host::Resolve(attributes, path);
        return NT_SUCCESS(status) ? path.provider->Delete(path.rest) : status;
    });
}
