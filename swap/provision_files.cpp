#include "swap/provision_files.h"
#include "driver/record/format_string.h"
#include "swap/map_format.h"

namespace {

constexpr ULONG kStorageAttributes = FILE_ATTRIBUTE_NORMAL | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_HIDDEN;
constexpr ULONG kStorageOptions =
    FILE_WRITE_THROUGH | FILE_NO_INTERMEDIATE_BUFFERING | FILE_SYNCHRONOUS_IO_NONALERT;

struct OPENING {
    ACCESS_MASK access;
    ULONG share;
    ULONG disposition;
};

NTSTATUS OpenStorageFile(PVOLUME_EXTENSION volume, ULONG index, const OPENING& opening, KernelHandle* file) {
    STORAGE_PATH path;
    const NTSTATUS named = MakeStoragePath(volume, index, &path);
    if (!NT_SUCCESS(named)) return named;
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &path.text, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr,
                               nullptr);
    IO_STATUS_BLOCK iosb{};
    HANDLE handle = nullptr;
    const NTSTATUS status =
        ZwCreateFile(&handle, opening.access | SYNCHRONIZE, &attributes, &iosb, nullptr, kStorageAttributes,
                     opening.share, opening.disposition, kStorageOptions, nullptr, 0);
    file->Reset(NT_SUCCESS(status) ? handle : nullptr);
    return status;
}

// Does the file system store the file's bytes as something else, and elsewhere than where they are written? One
// that cannot say has no such files.
BOOLEAN IsCoded(HANDLE file) {
    FILE_BASIC_INFORMATION basic{};
    IO_STATUS_BLOCK iosb{};
    const NTSTATUS status = ZwQueryInformationFile(file, &iosb, &basic, sizeof(basic), FileBasicInformation);
    return NT_SUCCESS(status) &&
           (basic.FileAttributes & (FILE_ATTRIBUTE_COMPRESSED | FILE_ATTRIBUTE_ENCRYPTED));
}

// For an existing file that nobody has open; changing its compression takes the right to read it as well.
void Decompress(PVOLUME_EXTENSION volume, ULONG index) {
    KernelHandle file;
    NTSTATUS status =
        OpenStorageFile(volume, index, {FILE_READ_DATA | FILE_WRITE_DATA, FILE_SHARE_READ, FILE_OPEN}, &file);
    USHORT format = COMPRESSION_FORMAT_NONE;
    IO_STATUS_BLOCK iosb{};
    if (NT_SUCCESS(status))
        status = ZwFsControlFile(file.Get(), nullptr, nullptr, nullptr, &iosb, FSCTL_SET_COMPRESSION, &format,
                                 sizeof(format), nullptr, 0);
    DbgPrint("Kvr!SwapStorageStartAllocation FSCTL_SET_COMPRESSION 0x%08x\n", status);
}

// A new file may have its folder's mark: compressed or encrypted. The blocks of such a file would not show
// where it lies. System files are not encrypted, so what remains to be done is to decompress it.
NTSTATUS MakePlain(PVOLUME_EXTENSION volume, ULONG index, KernelHandle* file) {
    if (!IsCoded(file->Get())) return STATUS_SUCCESS;
    file->Reset();
    Decompress(volume, index);
    const NTSTATUS status = OpenStorageFile(volume, index, {FILE_WRITE_DATA, FILE_SHARE_READ, FILE_OPEN}, file);
    if (!NT_SUCCESS(status) || !IsCoded(file->Get())) return status;
    DbgPrint("Kvr!SwapStorageStartAllocation: the storage would be compressed or encrypted on %wZ\n",
             &volume->VolumeName);
    file->Reset();
    return STATUS_NOT_SUPPORTED;
}

}  // namespace

NTSTATUS MakeStoragePath(PVOLUME_EXTENSION volume, ULONG index, STORAGE_PATH* path) {
    path->text = {0, sizeof(path->characters), path->characters};
    if (index != 0 && index != kMapFileIndex)
        return FormatString(&path->text, W("%wZ\\kvr.SWP.%02d"), &volume->VolumeName, index);
    RtlCopyUnicodeString(&path->text, &volume->VolumeName);
    return RtlAppendUnicodeToString(&path->text, index == 0 ? W("\\kvr.SWP") : W("\\kvr.MAP"));
}

NTSTATUS CreateStorageFile(PVOLUME_EXTENSION volume, ULONG index, KernelHandle* file) {
    NTSTATUS status =
        OpenStorageFile(volume, index, {FILE_WRITE_DATA, FILE_SHARE_READ, FILE_OVERWRITE_IF}, file);
    if (NT_SUCCESS(status)) status = MakePlain(volume, index, file);
    if (!NT_SUCCESS(status)) DbgPrint("Kvr!SwapStorageStartAllocation ZwCreateFile 0x%08x\n", status);
    return status;
}

NTSTATUS HoldStorageFile(PVOLUME_EXTENSION volume, ULONG index, KernelHandle* file) {
    return OpenStorageFile(volume, index, {FILE_READ_DATA, 0, FILE_OPEN}, file);
}

void DeleteStorageFile(PVOLUME_EXTENSION volume, ULONG index) {
    STORAGE_PATH path;
    if (!NT_SUCCESS(MakeStoragePath(volume, index, &path))) return;
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &path.text, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr,
                               nullptr);
    KVR_DISCARD(ZwDeleteFile(&attributes), "most of the numbered files never existed");
}

// The block goes to the disk as it is: zeroed, it carries nothing of the pool's past there.
BLOCK_WRITER::BLOCK_WRITER(PVOLUME_EXTENSION volume) : m_bytes(volume->BytesPerSector * kSectorsPerBlock) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, W("\\KernelObjects\\LowNonPagedPoolCondition"));
    HANDLE handle = nullptr;
    m_lowPool = IoCreateNotificationEvent(&name, &handle);
    m_eventHandle.Reset(m_lowPool ? handle : nullptr);
    if (m_bytes != 0) m_buffer = NewBuffer(m_bytes);
    if (m_buffer) RtlZeroMemory(m_buffer.Get(), m_bytes);
}

// Words that count: wherever a run begins, its slots are neither empty nor free of wrong check bytes.
void BLOCK_WRITER::FillAsDamagedMap() {
    if (m_buffer) ::FillAsDamagedMap(m_buffer.Get(), m_bytes);
}

NTSTATUS BLOCK_WRITER::Write(HANDLE file, LONGLONG offset) {
    IO_STATUS_BLOCK iosb{};
    LARGE_INTEGER position;
    position.QuadPart = offset;
    const NTSTATUS status =
        ZwWriteFile(file, nullptr, nullptr, nullptr, &iosb, m_buffer.Get(), m_bytes, &position, nullptr);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Kvr!SwapStorageStartAllocation ZwWriteFile 0x%08x\n", status);
        return status;
    }
    // Looked at for the debugger's sake only. The condition may stay signalled for hours on a small machine,
    // so neither stopping nor waiting for its end would be right; the trial allocation before each block is
    // the test that is about this work.
    if (m_lowPool) KVR_DISCARD(KeReadStateEvent(m_lowPool), "nothing depends on it");
    return status;
}

bool IsPoolAvailable(SIZE_T bytes) {
    return static_cast<bool>(NewBuffer(bytes));
}
