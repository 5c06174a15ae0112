#include "tests/second_kernel/common/played_files.h"
#include "platform/owners.h"

namespace {

// ---- names and space; under Lock -------------------------------------------------------------------------

PlayedFile* Find(PlayedFiles* files, PCUNICODE_STRING path) {
    for (PlayedFile& file : files->Table->Files) {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, file.Path);
        if (file.Exists && RtlCompareUnicodeString(&name, path, TRUE) == 0) return &file;
    }
    return nullptr;
}

PlayedFile* MakeFile(PlayedFiles* files, PCUNICODE_STRING path) {
    if (path->Length / sizeof(WCHAR) >= kPathCharacters) return nullptr;
    for (PlayedFile& file : files->Table->Files) {
        if (file.Exists) continue;
        RtlZeroMemory(&file, sizeof(file));
        RtlCopyMemory(file.Path, path->Buffer, path->Length);
        file.Exists = true;
        return &file;
    }
    return nullptr;
}

void GiveSpaceBack(PlayedFiles* files, PlayedFile* file) {
    for (ULONG i = 0; i < file->ExtentCount; ++i) {
        const FileExtent& extent = file->Extents[i];
        RtlZeroMemory(files->Table->Used + (extent.Offset - files->Begin) / kFileUnit,
                      static_cast<SIZE_T>(extent.Length / kFileUnit));
    }
    file->ExtentCount = 0;
    file->Size = 0;
}

// The lowest free units, at most a piece; behind a piece the gap stays free for ever.
ULONG TakeUnits(PlayedFiles* files, ULONG wanted, ULONG* first) {
    UCHAR* used = files->Table->Used;
    const ULONG units = files->Units < kMostUnits ? files->Units : kMostUnits;
    ULONG at = 0;
    while (at < units && used[at]) ++at;
    const ULONG most = files->PieceUnits && files->PieceUnits < wanted ? files->PieceUnits : wanted;
    ULONG count = 0;
    for (; count < most && at + count < units && !used[at + count]; ++count) used[at + count] = 1;
    for (ULONG i = 0; i < files->GapUnits && at + count + i < units; ++i) used[at + count + i] = 1;
    *first = at;
    return count;
}

LONGLONG Allocated(const PlayedFile* file) {
    LONGLONG bytes = 0;
    for (ULONG i = 0; i < file->ExtentCount; ++i) bytes += file->Extents[i].Length;
    return bytes;
}

bool AppendExtent(PlayedFile* file, LONGLONG offset, LONGLONG length) {
    FileExtent* last = file->ExtentCount ? &file->Extents[file->ExtentCount - 1] : nullptr;
    if (last && last->Offset + last->Length == offset) {
        last->Length += length;
        return true;
    }
    if (file->ExtentCount == kMostExtents) return false;
    file->Extents[file->ExtentCount++] = {offset, length};
    return true;
}

NTSTATUS Reserve(PlayedFiles* files, PlayedFile* file, LONGLONG size) {
    if (files->FileLimit && size > files->FileLimit) return STATUS_DISK_FULL;
    for (LONGLONG have = Allocated(file); have < size; have = Allocated(file)) {
        ULONG first = 0;
        const ULONG units =
            TakeUnits(files, static_cast<ULONG>((size - have + kFileUnit - 1) / kFileUnit), &first);
        if (units == 0) return STATUS_DISK_FULL;
        if (!AppendExtent(file, files->Begin + LONGLONG{first} * kFileUnit, LONGLONG{units} * kFileUnit))
            return STATUS_DISK_FULL;
    }
    return STATUS_SUCCESS;
}

// ---- opens; under Lock -----------------------------------------------------------------------------------

constexpr ACCESS_MASK kReads = FILE_READ_DATA | GENERIC_READ;

bool IsShared(ACCESS_MASK access, ULONG share) {
    return (!(access & kReads) || (share & FILE_SHARE_READ)) &&
           (!(access & FILE_WRITE_DATA) || (share & FILE_SHARE_WRITE)) &&
           (!(access & DELETE) || (share & FILE_SHARE_DELETE));
}

bool MayOpen(PlayedFiles* files, const PlayedFile* file, ACCESS_MASK access, ULONG share) {
    for (const PlayedOpen& open : files->Opens) {
        if (open.Files && open.File == file && (!IsShared(access, open.Share) || !IsShared(open.Access, share)))
            return false;
    }
    return true;
}

PlayedOpen* NewOpen(PlayedFiles* files, PlayedFile* file, ACCESS_MASK access, ULONG share) {
    for (PlayedOpen& open : files->Opens) {
        if (open.Files) continue;
        open.Files = files;
        open.File = file;
        open.Access = access;
        open.Share = share;
        InitializeFile(&open.Object, files->Volume, file->Path);
        return &open;
    }
    return nullptr;
}

NTSTATUS OpenExisting(PlayedFiles* files, PlayedFile* file, ULONG disposition, ULONG_PTR* information) {
    if (disposition == FILE_CREATE) return STATUS_OBJECT_NAME_COLLISION;
    *information = FILE_OPENED;
    if (disposition != FILE_OVERWRITE && disposition != FILE_OVERWRITE_IF) return STATUS_SUCCESS;
    GiveSpaceBack(files, file);
    *information = FILE_OVERWRITTEN;
    return STATUS_SUCCESS;
}

NTSTATUS OpenOrMake(PlayedFiles* files, PCUNICODE_STRING path, ACCESS_MASK access, ULONG share,
                    ULONG disposition, PlayedFile** file, ULONG_PTR* information) {
    *file = Find(files, path);
    if (*file) {
        if (!MayOpen(files, *file, access, share)) return STATUS_SHARING_VIOLATION;
        return OpenExisting(files, *file, disposition, information);
    }
    if (disposition == FILE_OPEN || disposition == FILE_OVERWRITE) return STATUS_OBJECT_NAME_NOT_FOUND;
    *file = MakeFile(files, path);
    *information = FILE_CREATED;
    return *file ? STATUS_SUCCESS : STATUS_DISK_FULL;
}

// ---- the calls -------------------------------------------------------------------------------------------

NTSTATUS CreateCall(PVOID fileSystem, PCUNICODE_STRING path, ACCESS_MASK access, ULONG share, ULONG disposition,
                    ULONG, PVOID* open, ULONG_PTR* information) {
    auto* files = static_cast<PlayedFiles*>(fileSystem);
    const FastMutexLock lock(files->Lock);
    PlayedFile* file = nullptr;
    const NTSTATUS status = OpenOrMake(files, path, access, share, disposition, &file, information);
    if (!NT_SUCCESS(status)) return status;
    *open = NewOpen(files, file, access, share);
    return *open ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

void CloseCall(PVOID context) {
    auto* open = static_cast<PlayedOpen*>(context);
    const FastMutexLock lock(open->Files->Lock);
    open->Files = nullptr;
}

NTSTATUS DeleteCall(PVOID fileSystem, PCUNICODE_STRING path) {
    auto* files = static_cast<PlayedFiles*>(fileSystem);
    const FastMutexLock lock(files->Lock);
    PlayedFile* file = Find(files, path);
    if (!file) return STATUS_OBJECT_NAME_NOT_FOUND;
    if (!MayOpen(files, file, DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE))
        return STATUS_SHARING_VIOLATION;
    GiveSpaceBack(files, file);
    file->Exists = false;
    return STATUS_SUCCESS;
}

// The stretch of the file at `offset` that lies in one piece: where, and how much of `length`. 0 behind the
// end.
ULONG NextStretch(PlayedOpen* open, LONGLONG offset, ULONG length, LONGLONG* place) {
    const FastMutexLock lock(open->Files->Lock);
    const PlayedFile* file = open->File;
    for (ULONG i = 0; i < file->ExtentCount; offset -= file->Extents[i++].Length) {
        const FileExtent& extent = file->Extents[i];
        if (offset >= extent.Length) continue;
        *place = extent.Offset + offset;
        const LONGLONG left = extent.Length - offset;
        return left < length ? static_cast<ULONG>(left) : length;
    }
    return 0;
}

NTSTATUS TransferFile(PlayedOpen* open, UCHAR major, LONGLONG offset, PUCHAR buffer, ULONG length) {
    for (ULONG done = 0; done < length;) {
        LONGLONG place = 0;
        const ULONG part = NextStretch(open, offset + done, length - done, &place);
        if (part == 0) return STATUS_END_OF_FILE;
        const NTSTATUS status = SendTransfer(stage::TopOfStack(open->Files->Volume),
                                             {major, place, buffer + done, part, &open->Object})
                                    .Status;
        if (!NT_SUCCESS(status)) return status;
        done += part;
    }
    return STATUS_SUCCESS;
}

// Whole sectors only, as unbuffered opens promise.
NTSTATUS CheckRange(const PlayedOpen* open, LONGLONG offset, ULONG length) {
    const ULONG sector = open->Files->Volume->SectorSize;
    return offset < 0 || offset % sector != 0 || length % sector != 0 ? STATUS_INVALID_PARAMETER
                                                                      : STATUS_SUCCESS;
}

LONGLONG SizeOf(PlayedOpen* open) {
    const FastMutexLock lock(open->Files->Lock);
    return open->File->Size;
}

NTSTATUS ReadCall(PVOID context, LONGLONG offset, PVOID buffer, ULONG length, ULONG* done) {
    auto* open = static_cast<PlayedOpen*>(context);
    *done = 0;
    NTSTATUS status = CheckRange(open, offset, length);
    if (!NT_SUCCESS(status)) return status;
    const LONGLONG size = SizeOf(open);
    if (offset >= size) return STATUS_END_OF_FILE;
    const ULONG part = size - offset < length ? static_cast<ULONG>(size - offset) : length;
    status = TransferFile(open, IRP_MJ_READ, offset, static_cast<PUCHAR>(buffer), part);
    if (NT_SUCCESS(status)) *done = part;
    return status;
}

void WaitAtGate(PlayedFiles* files) {
    ++files->Writes;
    if (!files->IsGated) return;
    KeSetEvent(&files->Arrived, 0, FALSE);
    (void)KeWaitForSingleObject(&files->Pass, Executive, KernelMode, FALSE, nullptr);
}

NTSTATUS Extend(PlayedOpen* open, LONGLONG size) {
    const FastMutexLock lock(open->Files->Lock);
    return Reserve(open->Files, open->File, size);
}

void NoteSize(PlayedOpen* open, LONGLONG size) {
    const FastMutexLock lock(open->Files->Lock);
    if (open->File->Size < size) open->File->Size = size;
}

NTSTATUS WriteCall(PVOID context, LONGLONG offset, const void* buffer, ULONG length, ULONG* done) {
    auto* open = static_cast<PlayedOpen*>(context);
    *done = 0;
    WaitAtGate(open->Files);
    NTSTATUS status = CheckRange(open, offset, length);
    if (NT_SUCCESS(status)) status = Extend(open, offset + length);
    if (NT_SUCCESS(status))
        status =
            TransferFile(open, IRP_MJ_WRITE, offset, static_cast<PUCHAR>(const_cast<PVOID>(buffer)), length);
    if (!NT_SUCCESS(status)) return status;
    NoteSize(open, offset + length);
    *done = length;
    return status;
}

constexpr stage::FileCalls kCalls = {CreateCall, ReadCall, WriteCall, CloseCall, DeleteCall};

}  // namespace

void MountFiles(PlayedFiles* files) {
    ExInitializeFastMutex(&files->Lock);
    KeInitializeEvent(&files->Arrived, NotificationEvent, FALSE);
    KeInitializeEvent(&files->Pass, SynchronizationEvent, FALSE);
    for (PlayedOpen& open : files->Opens) open.Files = nullptr;
    stage::Mount(files->Volume, &kCalls, files);
}

void GateWrites(PlayedFiles* files) {
    KeClearEvent(&files->Arrived);
    files->IsGated = true;
}

void LetOneThrough(PlayedFiles* files) {
    KeSetEvent(&files->Pass, 0, FALSE);
}

void OpenGate(PlayedFiles* files) {
    files->IsGated = false;
    KeSetEvent(&files->Pass, 0, FALSE);
}

const PlayedFile* FindFile(PlayedFiles* files, const WCHAR* path) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, path);
    const FastMutexLock lock(files->Lock);
    return Find(files, &name);
}
