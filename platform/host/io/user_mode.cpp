#include "platform/host/io/user_mode.h"
#include <utility>
#include <vector>
#include "platform/host/io/device.h"
#include "platform/host/io/device_table.h"
#include "platform/host/object/namespace.h"
#include "platform/host/object/object.h"
#include "platform/host/io/request.h"
#include "platform/host/check/host_memory.h"
#include "platform/host/check/verifier.h"

namespace host {
namespace {

// A program's open of a device; the platform's record comes first.
struct ProgramFile {
    FILE_OBJECT object;
    ACCESS_MASK access;
};

thread_local Program gProgram;

// What a create request says of the one who asks.
class Subject {
public:
    Subject() {
        m_state.SubjectSecurityContext = {const_cast<Token*>(gProgram.client), gProgram.level,
                                          &gProgram.process, nullptr};
    }
    IO_SECURITY_CONTEXT* Context() { return &m_context; }

private:
    ACCESS_STATE m_state{};
    IO_SECURITY_CONTEXT m_context{nullptr, &m_state};
};

std::vector<PFILE_OBJECT> gFiles KVR_GUARDED_BY(gDeviceLock);  // what programs have open

ACCESS_MASK Granted(ACCESS_MASK wanted) {
    constexpr ACCESS_MASK kGenericWrite = 0x40000000, kGenericAll = 0x10000000;
    if ((wanted & (GENERIC_READ | kGenericAll)) != 0) wanted |= FILE_READ_DATA;
    if ((wanted & (kGenericWrite | kGenericAll)) != 0) wanted |= FILE_WRITE_DATA;
    return wanted;
}

// The two access bits of a control code have the values of the rights that they ask for.
bool MayControl(const ProgramFile& file, ULONG code) {
    const ULONG wanted = (code >> 14) & (FILE_READ_DATA | FILE_WRITE_DATA);
    return (file.access & wanted) == wanted;
}

// Of a disk and its volumes the platform gives everybody a handle to ask with; to read and write they are the
// administrators' alone.
bool MayOpen(const ProgramFile& file) {
    const Token& who = gProgram.client ? *gProgram.client : gProgram.process;
    return who.isAdministrator || file.object.DeviceObject->DeviceType != FILE_DEVICE_DISK ||
           (file.access & (FILE_READ_DATA | FILE_WRITE_DATA)) == 0;
}

NTSTATUS CountOpen(PFILE_OBJECT file) {
    PDEVICE_OBJECT device = file->DeviceObject;
    const HostGuard guard(gDeviceLock);
    if (device->Host->Deleted || (device->Flags & DO_DEVICE_INITIALIZING) != 0) return STATUS_NO_SUCH_DEVICE;
    if ((device->Flags & DO_EXCLUSIVE) != 0 && device->Host->Opens != 0) return STATUS_ACCESS_DENIED;
    gFiles.push_back(file);
    ++device->Host->Opens;
    return STATUS_SUCCESS;
}

void ForgetOpen(PFILE_OBJECT file) {
    PDEVICE_OBJECT device = file->DeviceObject;
    {
        const HostGuard guard(gDeviceLock);
        if (std::erase(gFiles, file) != 0) --device->Host->Opens;
    }
    ObfDereferenceObject(file);
    ObfDereferenceObject(device);
}

// What is made has references to itself and its device.
NTSTATUS MakeOpen(std::u16string_view path, ACCESS_MASK access, ProgramFile*& opened) {
    ResolvedPath resolved;
    const NTSTATUS status = ResolvePath(path, resolved);
    if (!NT_SUCCESS(status)) return status;
    if (!resolved.rest.empty()) return STATUS_OBJECT_PATH_NOT_FOUND;
    opened = MakeObject<ProgramFile>(ObjectType::File);
    ObfReferenceObject(resolved.device);
    opened->access = Granted(access);
    opened->object.DeviceObject = resolved.device;
    return MayOpen(*opened) ? STATUS_SUCCESS : STATUS_ACCESS_DENIED;
}

NTSTATUS SendForFile(PFILE_OBJECT file, UCHAR major) {
    ObjectRef<DEVICE_OBJECT> top(IoGetAttachedDeviceReference(file->DeviceObject));
    // Also what closes a file, which nobody can refuse.
    SyncRequest sync(Insist("a request", [&] { return NewIrp(top->StackSize, nullptr, nullptr); }));
    sync.irp()->RequestorMode = UserMode;
    sync.irp()->Tail.Overlay.OriginalFileObject = file;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(sync.irp());
    next->MajorFunction = major;
    next->FileObject = file;
    Subject subject;
    if (major == IRP_MJ_CREATE) next->Parameters.Create.SecurityContext = subject.Context();
    return sync.Call(top.get()).status;
}

}  // namespace

Program SetProgram(const Program& program) {
    return std::exchange(gProgram, program);
}

NTSTATUS OpenDevice(std::u16string_view path, ACCESS_MASK access, PFILE_OBJECT& file) {
    RequireIrql("OpenDevice", PASSIVE_LEVEL);
    file = nullptr;
    ProgramFile* opened = nullptr;
    NTSTATUS status = WithinMemory([&] { return MakeOpen(path, access, opened); });
    if (opened == nullptr) return status;
    if (NT_SUCCESS(status)) status = WithinMemory([&] { return CountOpen(&opened->object); });
    if (NT_SUCCESS(status)) status = SendForFile(&opened->object, IRP_MJ_CREATE);
    if (!NT_SUCCESS(status)) {
        ForgetOpen(&opened->object);
        return status;
    }
    file = &opened->object;
    return status;
}

NTSTATUS DeviceIoControl(PFILE_OBJECT file, ULONG code, const void* input, ULONG inputLength, void* output,
                         ULONG outputLength, ULONG& returned) {
    returned = 0;
    if (!MayControl(*reinterpret_cast<ProgramFile*>(file), code)) return STATUS_ACCESS_DENIED;
    ObjectRef<DEVICE_OBJECT> top(IoGetAttachedDeviceReference(file->DeviceObject));
    const Outcome outcome = SendControl(top.get(), {.code = code,
                                                    .input = input,
                                                    .inputLength = inputLength,
                                                    .output = output,
                                                    .outputLength = outputLength,
                                                    .file = file,
                                                    .mode = UserMode});
    returned = static_cast<ULONG>(outcome.information);
    return outcome.status;
}

void CloseDevice(PFILE_OBJECT file) {
    RequireIrql("CloseDevice", PASSIVE_LEVEL);
    // A close cannot be refused: what the driver answers changes nothing.
    (void)SendForFile(file, IRP_MJ_CLEANUP);
    (void)SendForFile(file, IRP_MJ_CLOSE);
    ForgetOpen(file);
}

void DropProgramFiles() {
    const std::vector<PFILE_OBJECT> files = Insist("the list of open devices", [] {
        const HostGuard guard(gDeviceLock);
        return gFiles;
    });
    for (PFILE_OBJECT file : files) ForgetOpen(file);
}

}  // namespace host

BOOLEAN SeTokenIsAdmin(PACCESS_TOKEN token) {
    return static_cast<const host::Token*>(token)->isAdministrator;
}
