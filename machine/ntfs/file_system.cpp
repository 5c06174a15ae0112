#include "machine/ntfs/file_system.h"
#include <algorithm>
#include "machine/ntfs/directory.h"
#include "machine/ntfs/library.h"
#include "machine/ntfs/open_files.h"
#include "machine/files/open_rights.h"
#include "platform/owners.h"

namespace machine {
namespace {

constexpr ULONG kAllShares = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

bool Empties(ULONG disposition) {
    return disposition == FILE_OVERWRITE || disposition == FILE_OVERWRITE_IF;
}

bool Creates(ULONG disposition) {
    return disposition == FILE_CREATE || disposition == FILE_OPEN_IF || disposition == FILE_OVERWRITE_IF;
}

bool EqualIgnoringAsciiCase(const std::u16string& a, const std::u16string& b) {
    const auto lower = [](char16_t c) { return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + 32) : c; };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [&](char16_t x, char16_t y) { return lower(x) == lower(y); });
}

}  // namespace

struct NtfsFileSystem::State {
    explicit State(VolumeIo& io) : files(io) {}

    [[nodiscard]] NTSTATUS Locate(const std::u16string& path, NtfsPlace& place)
        KVR_REQUIRES(files.volume.Lock()) {
        return files.volume.Look(
            [&](const NtfsOperation& operation) { return LocateNtfsPath(operation, path, place); });
    }
    [[nodiscard]] NTSTATUS Create(NtfsPlace& place, bool directory, ULONG attributes)
        KVR_REQUIRES(files.volume.Lock());
    [[nodiscard]] NTSTATUS RemoveDirectory(const NtfsPlace& place) KVR_REQUIRES(files.volume.Lock());
    [[nodiscard]] NTSTATUS MoveName(const NtfsPlace& from, const NtfsPlace& to)
        KVR_REQUIRES(files.volume.Lock());
    [[nodiscard]] NTSTATUS Admit(const host::FileOpen& request, const ShareClaim& claim, NtfsPlace& place,
                                 std::shared_ptr<NtfsOpenFile>& file, ULONG_PTR& information)
        KVR_REQUIRES(files.volume.Lock());
    std::shared_ptr<NamedFileObject> MakeFileObject(const std::u16string& path, NtfsOpenFile& file)
        KVR_REQUIRES(files.volume.Lock());

    NtfsOpenFiles files;
    std::shared_ptr<NamedFileObject> pagingFile KVR_GUARDED_BY(files.volume.Lock());
};

// One open, as the host kernel holds it behind a handle.
class NtfsOpen : public host::OpenFile {
public:
    NtfsOpen(std::shared_ptr<NtfsFileSystem::State> state, std::shared_ptr<NtfsOpenFile> file,
             std::shared_ptr<NamedFileObject> object, const ShareClaim& claim, const host::FileOpen& request)
        : state_(std::move(state)),
          file_(std::move(file)),
          object_(std::move(object)),
          claim_(claim),
          rights_(request, state_->files.volume.Io().SectorSize()) {}

    ~NtfsOpen() override {
        const VolumeLockGuard guard(state_->files.volume.Lock());
        KVR_DISCARD(state_->files.Leave(file_, claim_), "a close has nobody to report a failure to");
    }
    NtfsOpen(const NtfsOpen&) = delete;
    NtfsOpen& operator=(const NtfsOpen&) = delete;

    NTSTATUS Read(LONGLONG offset, void* buffer, ULONG length, ULONG& done) override {
        done = 0;
        const NTSTATUS status = rights_.CheckRead(offset, length);
        if (!NT_SUCCESS(status)) return status;
        return file_->file.Read(object_->Get(), static_cast<std::uint64_t>(offset), buffer, length, done);
    }

    NTSTATUS Write(LONGLONG offset, const void* buffer, ULONG length, ULONG& done) override {
        done = 0;
        const NTSTATUS status = rights_.CheckWrite(offset, length);
        if (!NT_SUCCESS(status)) return status;
        return file_->file.Write(object_->Get(), static_cast<std::uint64_t>(offset), buffer, length, done);
    }

private:
    const std::shared_ptr<NtfsFileSystem::State> state_;
    const std::shared_ptr<NtfsOpenFile> file_;
    const std::shared_ptr<NamedFileObject> object_;
    const ShareClaim claim_;
    const OpenRights rights_;
};

NTSTATUS NtfsFileSystem::State::Create(NtfsPlace& place, bool directory, ULONG attributes) {
    const NTSTATUS status = files.volume.Change(
        CommitOrder::TakeFirst, files.volume.DirectoryObject(), [&](const NtfsOperation& operation) {
            return CreateNtfsEntry(operation, place.link, directory, attributes, place.reference);
        });
    place.exists = NT_SUCCESS(status);
    return status;
}

NTSTATUS NtfsFileSystem::State::RemoveDirectory(const NtfsPlace& place) {
    if (place.link.name.empty()) return STATUS_CANNOT_DELETE;
    return files.volume.Change(CommitOrder::RemoveFirst, files.volume.DirectoryObject(),
                               [&](const NtfsOperation& operation) {
                                   return RemoveNtfsEntry(operation, place.link, place.reference);
                               });
}

// The new name first: a machine that stops in between leaves the file with two names, not with none.
NTSTATUS NtfsFileSystem::State::MoveName(const NtfsPlace& from, const NtfsPlace& to) {
    NTSTATUS status = files.volume.Change(
        CommitOrder::TakeFirst, files.volume.DirectoryObject(),
        [&](const NtfsOperation& operation) { return AddNtfsLink(operation, to.link, from.reference); });
    if (!NT_SUCCESS(status)) return status;
    return files.volume.Change(
        CommitOrder::RemoveFirst, files.volume.DirectoryObject(),
        [&](const NtfsOperation& operation) { return RemoveNtfsEntry(operation, from.link, from.reference); });
}

// Filters remember the paging file by its file object and never learn that it went; the system keeps the paging
// file open for as long as it runs, and so one object stands for it until the volume is unmounted.
std::shared_ptr<NamedFileObject> NtfsFileSystem::State::MakeFileObject(const std::u16string& path,
                                                                       NtfsOpenFile& file) {
    if (!EqualIgnoringAsciiCase(path, u"\\pagefile.sys"))
        return std::make_shared<NamedFileObject>(files.volume.Io(), path, &file);
    if (pagingFile == nullptr) pagingFile = std::make_shared<NamedFileObject>(files.volume.Io(), path);
    return pagingFile;
}

NTSTATUS NtfsFileSystem::State::Admit(const host::FileOpen& request, const ShareClaim& claim, NtfsPlace& place,
                                      std::shared_ptr<NtfsOpenFile>& file, ULONG_PTR& information) {
    NTSTATUS status = Locate(request.path, place);
    if (!NT_SUCCESS(status)) return status;
    information = Empties(request.disposition) ? FILE_OVERWRITTEN : FILE_OPENED;
    if (place.exists) {
        if (request.disposition == FILE_CREATE) return STATUS_OBJECT_NAME_COLLISION;
        if (place.entry.directory) return STATUS_FILE_IS_A_DIRECTORY;
        const bool readOnly = (place.entry.attributes & FILE_ATTRIBUTE_READONLY) != 0;
        if (claim.write && readOnly) return STATUS_ACCESS_DENIED;
        if (claim.remove && readOnly) return STATUS_CANNOT_DELETE;
        if ((claim.write || claim.remove) && files.volume.ReadOnly()) return STATUS_MEDIA_WRITE_PROTECTED;
    } else {
        if (!Creates(request.disposition)) return STATUS_OBJECT_NAME_NOT_FOUND;
        status = Create(place, false, request.attributes);
        information = FILE_CREATED;
    }
    if (NT_SUCCESS(status)) status = files.Find(place, file);
    return NT_SUCCESS(status) ? files.Enter(file, claim) : status;
}

NtfsFileSystem::NtfsFileSystem(std::shared_ptr<State> state) : state_(std::move(state)) {}

NtfsFileSystem::~NtfsFileSystem() {
    KVR_DISCARD(Dismount(), "a destructor has nobody to report a failed flush to");
}

NTSTATUS NtfsFileSystem::Mount(VolumeIo& io, std::unique_ptr<NtfsFileSystem>& fileSystem) {
    auto state = std::make_shared<State>(io);
    {
        const VolumeLockGuard guard(state->files.volume.Lock());
        const NTSTATUS status = state->files.volume.Mount();
        if (!NT_SUCCESS(status)) return status;
    }
    fileSystem.reset(new NtfsFileSystem(std::move(state)));
    return STATUS_SUCCESS;
}

NTSTATUS NtfsFileSystem::Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                              ULONG_PTR& information) {
    if (request.disposition < FILE_OPEN || request.disposition > FILE_OVERWRITE_IF)
        return STATUS_INVALID_PARAMETER;
    ShareClaim claim = MakeShareClaim(request.access, request.share);
    claim.write = claim.write || Empties(request.disposition);  // emptying a file is writing it
    std::unique_ptr<NtfsOpen> opened;
    std::shared_ptr<NtfsOpenFile> target;
    {
        const VolumeLockGuard guard(state_->files.volume.Lock());
        NtfsPlace place;
        const NTSTATUS status = state_->Admit(request, claim, place, target, information);
        if (!NT_SUCCESS(status)) return status;
        opened = std::make_unique<NtfsOpen>(state_, target, state_->MakeFileObject(request.path, *target),
                                            claim, request);
    }
    if (information == FILE_OVERWRITTEN) {
        const NTSTATUS status = target->file.Truncate(request.attributes);
        if (!NT_SUCCESS(status)) return status;
    }
    file = std::move(opened);
    return STATUS_SUCCESS;
}

NTSTATUS NtfsFileSystem::Delete(const std::u16string& path) {
    const VolumeLockGuard guard(state_->files.volume.Lock());
    NtfsPlace place;
    const NTSTATUS status = state_->Locate(path, place);
    if (!NT_SUCCESS(status)) return status;
    if (place.exists && place.entry.directory) return state_->RemoveDirectory(place);

    const host::FileOpen request{path, DELETE, kAllShares, FILE_OPEN, 0, 0};
    const ShareClaim claim = MakeShareClaim(request.access, request.share);
    std::shared_ptr<NtfsOpenFile> file;
    ULONG_PTR information = 0;
    const NTSTATUS admitted = state_->Admit(request, claim, place, file, information);
    if (!NT_SUCCESS(admitted)) return admitted;
    file->removeName = place.link;
    return state_->files.Leave(file, claim);
}

NTSTATUS NtfsFileSystem::Rename(const std::u16string& from, const std::u16string& to) {
    const VolumeLockGuard guard(state_->files.volume.Lock());
    NtfsPlace source, target;
    NTSTATUS status = state_->Locate(from, source);
    if (NT_SUCCESS(status)) status = state_->Locate(to, target);
    if (!NT_SUCCESS(status)) return status;
    if (!source.exists) return STATUS_OBJECT_NAME_NOT_FOUND;
    if (source.link.name.empty()) return STATUS_ACCESS_DENIED;
    if (target.exists) return STATUS_OBJECT_NAME_COLLISION;

    if (source.entry.directory) {
        const std::uint64_t record = RecordOf(source.reference);
        if (std::find(target.above.begin(), target.above.end(), record) != target.above.end())
            return STATUS_INVALID_PARAMETER;  // a directory cannot move below itself
        if (state_->files.AnyBelow(source.reference)) return STATUS_ACCESS_DENIED;
        return state_->MoveName(source, target);
    }
    const host::FileOpen request{from, DELETE, kAllShares, FILE_OPEN, 0, 0};
    const ShareClaim claim = MakeShareClaim(request.access, request.share);
    std::shared_ptr<NtfsOpenFile> file;
    ULONG_PTR information = 0;
    status = state_->Admit(request, claim, source, file, information);
    if (!NT_SUCCESS(status)) return status;
    status = state_->MoveName(source, target);
    if (NT_SUCCESS(status)) file->above = target.above;
    KVR_DISCARD(state_->files.Leave(file, claim), "no deletion is due with it");
    return status;
}

NTSTATUS NtfsFileSystem::MakeDirectory(const std::u16string& path) {
    const VolumeLockGuard guard(state_->files.volume.Lock());
    NtfsPlace place;
    const NTSTATUS status = state_->Locate(path, place);
    if (!NT_SUCCESS(status)) return status;
    return place.exists ? STATUS_OBJECT_NAME_COLLISION : state_->Create(place, true, 0);
}

NTSTATUS NtfsFileSystem::List(const std::u16string& path, std::vector<DirectoryEntry>& entries) {
    const VolumeLockGuard guard(state_->files.volume.Lock());
    NtfsPlace place;
    const NTSTATUS status = state_->Locate(path, place);
    if (!NT_SUCCESS(status)) return status;
    if (!place.exists) return STATUS_OBJECT_NAME_NOT_FOUND;
    return state_->files.volume.Look(
        [&](const NtfsOperation& operation) { return ListNtfsDirectory(operation, place.reference, entries); });
}

NTSTATUS NtfsFileSystem::Query(const std::u16string& path, DirectoryEntry& entry) {
    const VolumeLockGuard guard(state_->files.volume.Lock());
    NtfsPlace place;
    const NTSTATUS status = state_->Locate(path, place);
    if (!NT_SUCCESS(status)) return status;
    if (!place.exists) return STATUS_OBJECT_NAME_NOT_FOUND;
    entry = place.entry;
    return STATUS_SUCCESS;
}

NTSTATUS NtfsFileSystem::FreeSpace(std::uint64_t& bytes) {
    using namespace ntfs_library;
    const VolumeLockGuard guard(state_->files.volume.Lock());
    return state_->files.volume.Look([&](const NtfsOperation& operation) {
        ntfs_volume* volume = operation.Library();
        if (!NVolFreeSpaceKnown(volume) && ntfs_volume_get_free_space(volume) != 0)
            return operation.Failed(errno);
        bytes = static_cast<std::uint64_t>(volume->free_clusters) << volume->cluster_size_bits;
        return STATUS_SUCCESS;
    });
}

bool NtfsFileSystem::ReadOnly() const {
    const VolumeLockGuard guard(state_->files.volume.Lock());
    return state_->files.volume.ReadOnly();
}

NTSTATUS NtfsFileSystem::Flush() {
    const VolumeLockGuard guard(state_->files.volume.Lock());
    return state_->files.volume.Closed() ? STATUS_DEVICE_NOT_READY : state_->files.volume.Io().Flush();
}

NTSTATUS NtfsFileSystem::Dismount() {
    return End(true);
}

void NtfsFileSystem::Abandon() {
    KVR_DISCARD(End(false), "nothing was sent that could have failed");
}

// Closing the mount first keeps new opens out; transfers of file data that are under way are waited for.
NTSTATUS NtfsFileSystem::End(bool orderly) {
    std::vector<std::shared_ptr<NtfsOpenFile>> open;
    {
        const VolumeLockGuard guard(state_->files.volume.Lock());
        if (state_->files.volume.Closed()) return STATUS_SUCCESS;
        open = orderly ? state_->files.CloseAll() : state_->files.ForgetAll();
        state_->files.volume.Close();
    }
    for (const std::shared_ptr<NtfsOpenFile>& file : open) file->file.Disconnect();
    return orderly ? state_->files.volume.Io().Flush() : STATUS_SUCCESS;
}

// As for the end, the mount first: no file is opened or loaded anew behind it.
void NtfsFileSystem::Suspend() {
    std::vector<std::shared_ptr<NtfsOpenFile>> open;
    {
        const VolumeLockGuard guard(state_->files.volume.Lock());
        open = state_->files.BringUpToDate();
        state_->files.volume.Suspend();
    }
    for (const std::shared_ptr<NtfsOpenFile>& file : open) file->file.Suspend();
}

void NtfsFileSystem::Resume() {
    std::vector<std::shared_ptr<NtfsOpenFile>> open;
    {
        const VolumeLockGuard guard(state_->files.volume.Lock());
        state_->files.volume.Resume();
        open = state_->files.All();
    }
    for (const std::shared_ptr<NtfsOpenFile>& file : open) file->file.Resume();
}

FileSystemFactory NtfsFactory() {
    return [](VolumeIo& io, NTSTATUS& status) -> std::unique_ptr<FileSystem> {
        std::unique_ptr<NtfsFileSystem> fileSystem;
        status = NtfsFileSystem::Mount(io, fileSystem);
        return fileSystem;
    };
}

}  // namespace machine
