// The configuration through the file system, for the control tool, and the files that are held open so that no
// other software changes them.
#include "config/config_files.h"
#include "config/config_location.h"
#include "config/storage.h"
#include "driver/record/registry.h"

namespace {

constexpr ULONG kFileOptions =
    FILE_WRITE_THROUGH | FILE_NO_INTERMEDIATE_BUFFERING | FILE_SYNCHRONOUS_IO_NONALERT;

struct FILE_OPENING {
    ACCESS_MASK Access;
    ULONG Share;
    ULONG Disposition;
};

NTSTATUS OpenFile(PUNICODE_STRING path, const FILE_OPENING& opening, KernelHandle* file) {
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb = {};
    HANDLE handle = nullptr;
    const NTSTATUS status =
        ZwCreateFile(&handle, opening.Access, &attributes, &iosb, nullptr, FILE_ATTRIBUTE_NORMAL, opening.Share,
                     opening.Disposition, kFileOptions, nullptr, 0);
    file->Reset(NT_SUCCESS(status) ? handle : nullptr);
    return status;
}

// Leaves the file open in `slot`. Of several threads that opened it at once, one leaves its handle there.
void Publish(std::atomic<HANDLE>& slot, KernelHandle& file) {
    HANDLE none = nullptr;
    if (slot.compare_exchange_strong(none, file.Get())) KVR_DISCARD(file.Release(), "the slot owns it now");
}

// Opens kvr.cfg unless it is open. `trace` is the caller's message, for the path.
NTSTATUS OpenConfigFile(PCSTR trace, ULONG disposition) {
    if (gConfigFileHandle) return STATUS_SUCCESS;
    UNICODE_STRING path;
    RtlInitUnicodeString(&path, W("\\SystemRoot\\system32\\drivers\\kvr.cfg"));
    DbgPrint(trace, &path);
    const FILE_OPENING opening = {SYNCHRONIZE | FILE_READ_DATA | FILE_WRITE_DATA,
                                  QueryConfigShareRead() ? FILE_SHARE_READ : 0, disposition};
    KernelHandle file;
    const NTSTATUS status = OpenFile(&path, opening, &file);
    if (NT_SUCCESS(status)) Publish(gConfigFileHandle, file);
    // A thread that opened the file meanwhile shut this one out and has left its handle.
    return gConfigFileHandle ? STATUS_SUCCESS : status;
}

NTSTATUS WriteConfigFile(PVOID buffer, ULONG length) {
    PostloadConfigPrepare();
    const NTSTATUS opened = OpenConfigFile("Kvr!WriteConfig: Opening file %wZ\n", FILE_OPEN_IF);
    if (!NT_SUCCESS(opened)) {
        DbgPrint("Kvr!WriteConfig: Error opening file %x\n", opened);
        return STATUS_NO_SUCH_FILE;
    }
    IO_STATUS_BLOCK iosb = {};
    LARGE_INTEGER offset = {};
    const NTSTATUS status =
        ZwWriteFile(gConfigFileHandle, nullptr, nullptr, nullptr, &iosb, buffer, length, &offset, nullptr);
    if (!NT_SUCCESS(status) && status != STATUS_END_OF_FILE) {
        DbgPrint("Kvr!WriteConfig: Error write file %x\n", status);
        return STATUS_UNSUCCESSFUL;
    }
    // The write went through to the volume before it returned: the write path has seen where.
    PostloadConfig();
    return status;
}

// From here to the end of the tool's write nothing is written back over it; what is under way ends first.
void BeginToolWrite() {
    FastMutexLock lock(gConfigWriteLock);
    ++gConfigToolWrites;
}

void EndToolWrite(NTSTATUS status) {
    FastMutexLock lock(gConfigWriteLock);
    if (status == STATUS_SUCCESS) {
        gConfigWrittenByTool = TRUE;
        gConfigDirty = FALSE;
    }
    --gConfigToolWrites;
}

}  // namespace

NTSTATUS ReadConfig(PVOID buffer, ULONG* length) {
    const NTSTATUS opened = OpenConfigFile("Kvr!ReadConfig: Opening file %wZ\n", FILE_OPEN);
    if (!NT_SUCCESS(opened)) {
        DbgPrint("Kvr!ReadConfig: Error opening file %x\n", opened);
        return STATUS_NO_SUCH_FILE;
    }
    IO_STATUS_BLOCK iosb = {};
    LARGE_INTEGER offset = {};
    const NTSTATUS status =
        ZwReadFile(gConfigFileHandle, nullptr, nullptr, nullptr, &iosb, buffer, *length, &offset, nullptr);
    if (status == STATUS_END_OF_FILE) {
        *length = 0;
        return status;
    }
    if (!NT_SUCCESS(status)) {
        DbgPrint("Kvr!ReadConfig: Error read file %x\n", status);
        return STATUS_UNSUCCESSFUL;
    }
    if (iosb.Information < *length) *length = static_cast<ULONG>(iosb.Information);
    return status;
}

NTSTATUS WriteConfig(PVOID buffer, ULONG length) {
    BeginToolWrite();
    NTSTATUS status = WriteConfigDirect(buffer, length);
    if (status != STATUS_SUCCESS) status = WriteConfigFile(buffer, length);
    EndToolWrite(status);
    return status;
}

BOOLEAN QueryConfigShareRead() {
    BOOLEAN on = FALSE;
    KVR_DISCARD(ReadDriverSwitch(W("ConfigShareRead"), &on), "what is not known is not shared");
    return on;
}

void LockConfig() {
    KVR_DISCARD(OpenConfigFile("Kvr!LockConfig: Opening file %wZ\n", FILE_OPEN),
                "a file that cannot be held stays open to others; the tool's next request opens it again");
}

void LockDriverFile() {
    static constexpr PCWSTR paths[] = {W("\\SystemRoot\\system32\\drivers\\kvr32.sys"),
                                       W("\\SystemRoot\\system32\\drivers\\kvr64.sys")};
    if (QueryConfigShareRead()) return;
    for (PCWSTR text : paths) {
        if (gDriverFileHandle) return;
        UNICODE_STRING path;
        RtlInitUnicodeString(&path, text);
        KernelHandle file;
        const NTSTATUS status = OpenFile(&path, {GENERIC_READ, FILE_SHARE_READ, FILE_OPEN}, &file);
        if (NT_SUCCESS(status)) Publish(gDriverFileHandle, file);
        DbgPrint("Kvr!LockDriverFile: Opening file %wZ status=%08x\n", &path, status);
    }
}
