// File calls. Paths on a story's volume go to the file system that the story plays; \SystemRoot, which Wine's
// kernel does not know, leads where the story says; all others go on to Wine.
#include "irql.h"
#include "shim.h"
#include "story_files.h"

namespace shim {
namespace {

decltype(&ZwCreateFile) gKernelCreate;
decltype(&ZwReadFile) gKernelRead;
decltype(&ZwWriteFile) gKernelWrite;
decltype(&ZwDeleteFile) gKernelDelete;
decltype(&ZwClose) gKernelClose;

void RequirePassive(const char* what, const void* caller) {
    RequireIrql(PASSIVE_LEVEL, what, caller);
}

NTSTATUS Report(PIO_STATUS_BLOCK iosb, NTSTATUS status, ULONG_PTR information) {
    iosb->Status = status;
    iosb->Information = NT_SUCCESS(status) ? information : 0;
    return status;
}

// The same attributes with the path that the kernel is to open.
OBJECT_ATTRIBUTES WithPath(const OBJECT_ATTRIBUTES& attributes, PUNICODE_STRING path) {
    OBJECT_ATTRIBUTES changed = attributes;
    changed.ObjectName = path;
    return changed;
}

NTSTATUS NTAPI CreateFile(PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes,
                          PIO_STATUS_BLOCK iosb, PLARGE_INTEGER size, ULONG fileAttributes, ULONG share,
                          ULONG disposition, ULONG options, PVOID ea, ULONG eaLength) {
    RequirePassive("ZwCreateFile at too high an IRQL", SHIM_CALLER);
    ResolvedPath path;
    ULONG_PTR information = 0;
    switch (ResolvePath(attributes->ObjectName, &path)) {
        case PathOwner::Story: {
            const NTSTATUS status =
                OpenStoryFile(path, {access, share, disposition, options}, handle, &information);
            return Report(iosb, status, information);
        }
        case PathOwner::Nobody:
            return Report(iosb, STATUS_UNRECOGNIZED_VOLUME, 0);
        case PathOwner::Kernel:
            break;
    }
    OBJECT_ATTRIBUTES changed = WithPath(*attributes, &path.real);
    return gKernelCreate(handle, access, &changed, iosb, size, fileAttributes, share, disposition, options, ea,
                         eaLength);
}

NTSTATUS NTAPI DeleteFile(POBJECT_ATTRIBUTES attributes) {
    RequirePassive("ZwDeleteFile at too high an IRQL", SHIM_CALLER);
    ResolvedPath path;
    switch (ResolvePath(attributes->ObjectName, &path)) {
        case PathOwner::Story:
            return DeleteStoryFile(path);
        case PathOwner::Nobody:
            return STATUS_UNRECOGNIZED_VOLUME;
        case PathOwner::Kernel:
            break;
    }
    OBJECT_ATTRIBUTES changed = WithPath(*attributes, &path.real);
    return gKernelDelete(&changed);
}

// Runs transfer(file, done) for a story's file and reports it. Null: not one of these.
template <class Transfer>
bool TransferStory(HANDLE handle, PIO_STATUS_BLOCK iosb, NTSTATUS* status, const Transfer& transfer) {
    StoryFile* file = ReferenceStoryFile(handle);
    if (!file) return false;
    ULONG done = 0;
    const NTSTATUS result = transfer(file, &done);
    ReleaseStoryFile(file);
    *status = Report(iosb, result, done);
    return true;
}

NTSTATUS NTAPI ReadFile(HANDLE handle, HANDLE event, PIO_APC_ROUTINE apc, PVOID context, PIO_STATUS_BLOCK iosb,
                        PVOID buffer, ULONG length, PLARGE_INTEGER offset, PULONG key) {
    RequirePassive("ZwReadFile at too high an IRQL", SHIM_CALLER);
    NTSTATUS status = STATUS_SUCCESS;
    const bool story = TransferStory(handle, iosb, &status, [&](StoryFile* file, ULONG* done) {
        return ReadStoryFile(file, offset->QuadPart, buffer, length, done);
    });
    return story ? status : gKernelRead(handle, event, apc, context, iosb, buffer, length, offset, key);
}

NTSTATUS NTAPI WriteFile(HANDLE handle, HANDLE event, PIO_APC_ROUTINE apc, PVOID context, PIO_STATUS_BLOCK iosb,
                         PVOID buffer, ULONG length, PLARGE_INTEGER offset, PULONG key) {
    RequirePassive("ZwWriteFile at too high an IRQL", SHIM_CALLER);
    NTSTATUS status = STATUS_SUCCESS;
    const bool story = TransferStory(handle, iosb, &status, [&](StoryFile* file, ULONG* done) {
        return WriteStoryFile(file, offset->QuadPart, buffer, length, done);
    });
    return story ? status : gKernelWrite(handle, event, apc, context, iosb, buffer, length, offset, key);
}

// The handle that stands for every notification event: they are one event, which nobody ever signals.
const HANDLE kEventHandle = reinterpret_cast<HANDLE>(0x4556454E'00000004);
KEVENT gNeverSignalled;

// Wine's gives null.
PKEVENT NTAPI CreateNotificationEvent(PUNICODE_STRING, PHANDLE handle) {
    RequirePassive("IoCreateNotificationEvent at too high an IRQL", SHIM_CALLER);
    KeInitializeEvent(&gNeverSignalled, NotificationEvent, FALSE);
    *handle = kEventHandle;
    return &gNeverSignalled;
}

NTSTATUS NTAPI Close(HANDLE handle) {
    RequirePassive("ZwClose at too high an IRQL", SHIM_CALLER);
    if (handle == kEventHandle || CloseStoryFile(handle)) return STATUS_SUCCESS;
    const NTSTATUS status = gKernelClose(handle);
    if (!NT_SUCCESS(status)) BrokenRule("a handle closed that is none", SHIM_CALLER);
    return status;
}

const Replacement kReplacements[] = {
    {"ZwCreateFile", reinterpret_cast<PVOID>(CreateFile), reinterpret_cast<PVOID*>(&gKernelCreate)},
    {"ZwReadFile", reinterpret_cast<PVOID>(ReadFile), reinterpret_cast<PVOID*>(&gKernelRead)},
    {"ZwWriteFile", reinterpret_cast<PVOID>(WriteFile), reinterpret_cast<PVOID*>(&gKernelWrite)},
    {"ZwDeleteFile", reinterpret_cast<PVOID>(DeleteFile), reinterpret_cast<PVOID*>(&gKernelDelete)},
    {"ZwClose", reinterpret_cast<PVOID>(Close), reinterpret_cast<PVOID*>(&gKernelClose)},
    {"IoCreateNotificationEvent", reinterpret_cast<PVOID>(CreateNotificationEvent), nullptr},
};

}  // namespace

Replacements FileReplacements() {
    return {kReplacements, RTL_NUMBER_OF(kReplacements)};
}

}  // namespace shim
