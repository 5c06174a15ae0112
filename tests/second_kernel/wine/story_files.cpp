#include "story_files.h"
#include "protocol.h"

namespace shim {

struct StoryMount {
    const stage::FileCalls* calls;
    PVOID fileSystem;
    ULONG sectorBytes;
    USHORT nameBytes;
    WCHAR name[64];
};

struct StoryFile {
    const stage::FileCalls* calls;  // null: free
    PVOID open;
    ULONG sectorBytes;  // transfers must be whole sectors when this is not 0
    LONG references;    // the handle's own is one of them
    USHORT handleUses;  // how often this place was used, so that a stale handle is none
};

namespace {

constexpr ULONG kMostMounts = 16;
constexpr ULONG kMostFiles = 512;

KSPIN_LOCK gLock;  // guards what follows
StoryMount gMounts[kMostMounts];
ULONG gMountCount;
StoryFile gFiles[kMostFiles];
const WCHAR* gSystemRoot;

class Guard {
public:
    Guard() : m_irql(KeAcquireSpinLockRaiseToDpc(&gLock)) {}
    ~Guard() { KeReleaseSpinLock(&gLock, m_irql); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

private:
    KIRQL m_irql;
};

// ---- handles ----

// No handle of the kernel's has such a value.
constexpr ULONG_PTR kHandleMark = 0x53480000'00000000;

HANDLE HandleOf(const StoryFile* file) {
    const auto index = static_cast<ULONG_PTR>(file - gFiles);
    return reinterpret_cast<HANDLE>(kHandleMark | (ULONG_PTR{file->handleUses} << 16) | (index << 2));
}

StoryFile* FindFile(HANDLE handle) {
    const auto value = reinterpret_cast<ULONG_PTR>(handle);
    const ULONG_PTR index = (value & 0xFFFF) >> 2;
    if ((value & 0xFFFF0000'00000000) != kHandleMark || index >= kMostFiles) return nullptr;
    StoryFile* file = &gFiles[index];
    return file->calls && HandleOf(file) == handle ? file : nullptr;
}

StoryFile* TakePlace(const StoryMount& mount, PVOID open, ULONG options) {
    Guard guard;
    for (StoryFile& file : gFiles) {
        if (file.references != 0) continue;
        const bool whole = options & FILE_NO_INTERMEDIATE_BUFFERING;
        file = {mount.calls, open, whole ? mount.sectorBytes : 0, 1, static_cast<USHORT>(file.handleUses + 1)};
        return &file;
    }
    return nullptr;
}

bool IsWhole(const StoryFile* file, LONGLONG offset, ULONG length) {
    return file->sectorBytes == 0 || (offset % file->sectorBytes == 0 && length % file->sectorBytes == 0);
}

// ---- paths ----

// What is left of `path` behind `prefix` when a backslash follows there.
bool SplitPath(PCUNICODE_STRING path, PCUNICODE_STRING prefix, UNICODE_STRING* rest) {
    if (!RtlPrefixUnicodeString(prefix, path, TRUE)) return false;
    const auto bytes = static_cast<USHORT>(path->Length - prefix->Length);
    *rest = {bytes, bytes, path->Buffer + prefix->Length / sizeof(WCHAR)};
    return bytes > sizeof(WCHAR) && rest->Buffer[0] == L'\\';
}

const StoryMount* FindMount(PCUNICODE_STRING path, UNICODE_STRING* rest) {
    Guard guard;
    for (ULONG i = 0; i < gMountCount; ++i) {
        UNICODE_STRING name{gMounts[i].nameBytes, gMounts[i].nameBytes, gMounts[i].name};
        if (SplitPath(path, &name, rest)) return &gMounts[i];
    }
    return nullptr;
}

// Writes `from` and `rest` to the room.
PCUNICODE_STRING Join(const WCHAR* from, const UNICODE_STRING& rest, ResolvedPath* resolved) {
    resolved->real = {0, sizeof(resolved->room), resolved->room};
    (void)RtlAppendUnicodeToString(&resolved->real, from);
    (void)RtlAppendUnicodeStringToString(&resolved->real, &rest);
    return &resolved->real;
}

}  // namespace

PathOwner ResolvePath(PCUNICODE_STRING path, ResolvedPath* resolved) {
    UNICODE_STRING systemRoot, device, rest;
    RtlInitUnicodeString(&systemRoot, L"\\SystemRoot");
    RtlInitUnicodeString(&device, L"\\Device");
    resolved->real = *path;
    if (SplitPath(path, &systemRoot, &rest))
        path = Join(gSystemRoot ? gSystemRoot : L"\\??\\" STORY_FOLDER L"\\root", rest, resolved);
    resolved->mount = FindMount(path, &resolved->rest);
    if (resolved->mount) return PathOwner::Story;
    return SplitPath(path, &device, &rest) ? PathOwner::Nobody : PathOwner::Kernel;
}

NTSTATUS OpenStoryFile(const ResolvedPath& path, const FileOpening& opening, HANDLE* handle,
                       ULONG_PTR* information) {
    const StoryMount& mount = *path.mount;
    PVOID open = nullptr;
    const NTSTATUS status = mount.calls->Create(mount.fileSystem, &path.rest, opening.access, opening.share,
                                                opening.disposition, opening.options, &open, information);
    if (!NT_SUCCESS(status)) return status;
    StoryFile* file = TakePlace(mount, open, opening.options);
    if (!file) {
        mount.calls->Close(open);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *handle = HandleOf(file);
    return status;
}

NTSTATUS DeleteStoryFile(const ResolvedPath& path) {
    return path.mount->calls->Delete(path.mount->fileSystem, &path.rest);
}

StoryFile* ReferenceStoryFile(HANDLE handle) {
    Guard guard;
    StoryFile* file = FindFile(handle);
    if (file) ++file->references;
    return file;
}

// The last reference closes; the place is free only after that.
void ReleaseStoryFile(StoryFile* file) {
    {
        Guard guard;
        if (file->references > 1) {
            --file->references;
            return;
        }
    }
    file->calls->Close(file->open);
    Guard guard;
    file->calls = nullptr;
    file->references = 0;
}

bool CloseStoryFile(HANDLE handle) {
    StoryFile* file = nullptr;
    {
        Guard guard;
        file = FindFile(handle);
        if (file) ++file->handleUses;
    }
    if (!file) return false;
    ReleaseStoryFile(file);
    return true;
}

NTSTATUS ReadStoryFile(StoryFile* file, LONGLONG offset, PVOID buffer, ULONG length, ULONG* done) {
    if (!IsWhole(file, offset, length)) return STATUS_INVALID_PARAMETER;
    return file->calls->Read(file->open, offset, buffer, length, done);
}

NTSTATUS WriteStoryFile(StoryFile* file, LONGLONG offset, const void* buffer, ULONG length, ULONG* done) {
    if (!IsWhole(file, offset, length)) return STATUS_INVALID_PARAMETER;
    return file->calls->Write(file->open, offset, buffer, length, done);
}

}  // namespace shim

void stage::Mount(PDEVICE_OBJECT device, const FileCalls* calls, PVOID fileSystem) {
    alignas(OBJECT_NAME_INFORMATION) UCHAR buffer[256];
    auto* info = reinterpret_cast<POBJECT_NAME_INFORMATION>(buffer);
    ULONG needed = 0;
    const NTSTATUS status = ObQueryNameString(device, info, sizeof(buffer), &needed);
    if (!CheckStatus(status, STATUS_SUCCESS, "the name of a device to mount on")) return;
    shim::Guard guard;
    if (shim::gMountCount == shim::kMostMounts || info->Name.Length > sizeof(shim::StoryMount::name)) return;
    shim::StoryMount& mount = shim::gMounts[shim::gMountCount++];
    mount = {calls, fileSystem, device->SectorSize, info->Name.Length, {}};
    RtlCopyMemory(mount.name, info->Name.Buffer, info->Name.Length);
}

void stage::SetSystemRoot(const WCHAR* path) {
    shim::gSystemRoot = path;
}
