#include "machine/files/mounted_file_system.h"
#include <algorithm>
#include "machine/files/named_file_object.h"
#include "machine/files/open_files.h"
#include "machine/files/open_rights.h"
#include "machine/names.h"
#include "platform/host/check/host_memory.h"
#include "platform/owners.h"

namespace machine {
namespace {

using Owner = MountedVolume::Owner;

constexpr ULONG kAllShares = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

bool Empties(ULONG disposition) {
    return disposition == FILE_OVERWRITE || disposition == FILE_OVERWRITE_IF;
}

bool Creates(ULONG disposition) {
    return disposition == FILE_CREATE || disposition == FILE_OPEN_IF || disposition == FILE_OVERWRITE_IF;
}

}  // namespace

struct MountedFileSystem::State {
    explicit State(std::unique_ptr<VolumeFormat> format) : files(std::move(format)) {}

    [[nodiscard]] NTSTATUS Locate(const std::u16string& path, FilePlace& place)
        KVR_REQUIRES(files.volume.Lock()) {
        return files.volume.Look([&](VolumeFormat& format) { return LocatePath(format, path, place); });
    }
    // What stands at a path.
    [[nodiscard]] NTSTATUS LocateExisting(const std::u16string& path, FilePlace& place)
        KVR_REQUIRES(files.volume.Lock()) {
        const NTSTATUS status = Locate(path, place);
        return NT_SUCCESS(status) && !place.exists ? STATUS_OBJECT_NAME_NOT_FOUND : status;
    }
    [[nodiscard]] NTSTATUS Create(FilePlace& place, bool directory, ULONG attributes)
        KVR_REQUIRES(files.volume.Lock());
    [[nodiscard]] NTSTATUS RemoveDirectory(const FilePlace& place) KVR_REQUIRES(files.volume.Lock());
    [[nodiscard]] NTSTATUS MoveName(const FilePlace& from, const FilePlace& to)
        KVR_REQUIRES(files.volume.Lock());
    [[nodiscard]] NTSTATUS CheckExisting(const host::FileOpen& request, const ShareClaim& claim,
                                         const DirectoryEntry& entry) KVR_REQUIRES(files.volume.Lock());
    // An open of what was located at the request's path.
    [[nodiscard]] NTSTATUS Admit(const host::FileOpen& request, const ShareClaim& claim, FilePlace& place,
                                 std::shared_ptr<SharedFile>& file, ULONG_PTR& information)
        KVR_REQUIRES(files.volume.Lock());
    // The same for a file that is to be deleted or renamed.
    [[nodiscard]] NTSTATUS AdmitRemoval(FilePlace& place, ShareClaim& claim, std::shared_ptr<SharedFile>& file)
        KVR_REQUIRES(files.volume.Lock());
    std::shared_ptr<NamedFileObject> MakeFileObject(const host::FileOpen& request, SharedFile& file)
        KVR_REQUIRES(files.volume.Lock());

    OpenFiles files;
    std::shared_ptr<NamedFileObject> pagingFile KVR_GUARDED_BY(files.volume.Lock());
};

// One open, as the host kernel holds it behind a handle.
class MountedOpen : public host::OpenFile {
public:
    MountedOpen(std::shared_ptr<MountedFileSystem::State> state, std::shared_ptr<SharedFile> file,
                std::shared_ptr<NamedFileObject> object, const ShareClaim& claim, const host::FileOpen& request)
        : state_(std::move(state)),
          file_(std::move(file)),
          object_(std::move(object)),
          claim_(claim),
          rights_(request, state_->files.volume.Io().SectorSize()) {}

    ~MountedOpen() override {
        const host::HostGuard guard(state_->files.volume.Lock());
        KVR_DISCARD(host::WithinMemory([&]() KVR_REQUIRES(state_->files.volume.Lock()) { return Leave(); }),
                    "a close has nobody to report a failure to");
    }
    MountedOpen(const MountedOpen&) = delete;
    MountedOpen& operator=(const MountedOpen&) = delete;

    NTSTATUS Read(LONGLONG offset, void* buffer, ULONG length, ULONG& done) override {
        done = 0;
        const NTSTATUS status = rights_.CheckRead(offset, length);
        if (!NT_SUCCESS(status)) return status;
        return file_->data.Read(object_->Get(), static_cast<std::uint64_t>(offset), buffer, length, done);
    }

    NTSTATUS Write(LONGLONG offset, const void* buffer, ULONG length, ULONG& done) override {
        done = 0;
        const NTSTATUS status = rights_.CheckWrite(offset, length);
        if (!NT_SUCCESS(status)) return status;
        return file_->data.Write(object_->Get(), static_cast<std::uint64_t>(offset), buffer, length, done);
    }

private:
    NTSTATUS Leave() KVR_REQUIRES(state_->files.volume.Lock()) { return state_->files.Leave(file_, claim_); }

    const std::shared_ptr<MountedFileSystem::State> state_;
    const std::shared_ptr<SharedFile> file_;
    const std::shared_ptr<NamedFileObject> object_;
    const ShareClaim claim_;
    const OpenRights rights_;
};

NTSTATUS MountedFileSystem::State::Create(FilePlace& place, bool directory, ULONG attributes) {
    const NTSTATUS status = files.volume.Change(
        CommitOrder::TakeFirst, Owner::Directory,
        [&](VolumeFormat& format) { return format.Create(place.link, directory, attributes, place.id); });
    place.exists = NT_SUCCESS(status);
    return status;
}

NTSTATUS MountedFileSystem::State::RemoveDirectory(const FilePlace& place) {
    if (!files.volume.Traits().movesNames) return STATUS_FILE_IS_A_DIRECTORY;
    if (place.link.name.empty()) return STATUS_CANNOT_DELETE;
    return files.volume.Change(CommitOrder::RemoveFirst, Owner::Directory,
                               [&](VolumeFormat& format) { return format.Remove(place.link, place.id); });
}

// The new name first: a machine that stops in between leaves the file with two names, not with none.
NTSTATUS MountedFileSystem::State::MoveName(const FilePlace& from, const FilePlace& to) {
    const NTSTATUS status =
        files.volume.Change(CommitOrder::TakeFirst, Owner::Directory,
                            [&](VolumeFormat& format) { return format.AddName(to.link, from.id); });
    if (!NT_SUCCESS(status)) return status;
    return files.volume.Change(CommitOrder::RemoveFirst, Owner::Directory,
                               [&](VolumeFormat& format) { return format.Remove(from.link, from.id); });
}

// Filters remember the paging file by its file object and never learn that it went; the system keeps the paging
// file open for as long as it runs, and so one object stands for it until the volume is unmounted.
std::shared_ptr<NamedFileObject> MountedFileSystem::State::MakeFileObject(const host::FileOpen& request,
                                                                          SharedFile& file) {
    const bool unbuffered = (request.options & FILE_NO_INTERMEDIATE_BUFFERING) != 0;
    if (FoldName(request.path) != u"\\PAGEFILE.SYS")
        return std::make_shared<NamedFileObject>(files.volume.Io(), request.path, &file,
                                                 unbuffered ? FO_NO_INTERMEDIATE_BUFFERING : 0);
    if (pagingFile == nullptr) pagingFile = std::make_shared<NamedFileObject>(files.volume.Io(), request.path);
    return pagingFile;
}

NTSTATUS MountedFileSystem::State::CheckExisting(const host::FileOpen& request, const ShareClaim& claim,
                                                 const DirectoryEntry& entry) {
    if (request.disposition == FILE_CREATE) return STATUS_OBJECT_NAME_COLLISION;
    if (entry.directory) return STATUS_FILE_IS_A_DIRECTORY;
    if (entry.foreign) return STATUS_NOT_SUPPORTED;
    const bool readOnly = (entry.attributes & FILE_ATTRIBUTE_READONLY) != 0;
    if (claim.write && readOnly) return STATUS_ACCESS_DENIED;
    if (claim.remove && readOnly) return STATUS_CANNOT_DELETE;
    const bool changes = claim.write || claim.remove;
    return changes && !files.volume.ReadOnlyReason().empty() ? STATUS_MEDIA_WRITE_PROTECTED : STATUS_SUCCESS;
}

NTSTATUS MountedFileSystem::State::Admit(const host::FileOpen& request, const ShareClaim& claim,
                                         FilePlace& place, std::shared_ptr<SharedFile>& file,
                                         ULONG_PTR& information) {
    NTSTATUS status = STATUS_SUCCESS;
    information = Empties(request.disposition) ? FILE_OVERWRITTEN : FILE_OPENED;
    if (place.exists) {
        status = CheckExisting(request, claim, place.entry);
    } else {
        if (!Creates(request.disposition)) return STATUS_OBJECT_NAME_NOT_FOUND;
        status = Create(place, false, request.attributes);
        information = FILE_CREATED;
    }
    if (NT_SUCCESS(status)) status = files.Find(place, file);
    return NT_SUCCESS(status) ? files.Enter(file, claim) : status;
}

NTSTATUS MountedFileSystem::State::AdmitRemoval(FilePlace& place, ShareClaim& claim,
                                                std::shared_ptr<SharedFile>& file) {
    const host::FileOpen request{{}, DELETE, kAllShares, FILE_OPEN, 0, 0};
    claim = MakeShareClaim(request.access, request.share);
    ULONG_PTR information = 0;
    return Admit(request, claim, place, file, information);
}

MountedFileSystem::MountedFileSystem(std::shared_ptr<State> state) : state_(std::move(state)) {}

MountedFileSystem::~MountedFileSystem() {
    KVR_DISCARD(Dismount(), "a destructor has nobody to report a failed flush to");
}

NTSTATUS MountedFileSystem::Mount(std::unique_ptr<VolumeFormat> format,
                                  std::unique_ptr<MountedFileSystem>& fileSystem) {
    auto state = std::make_shared<State>(std::move(format));
    {
        const host::HostGuard guard(state->files.volume.Lock());
        const NTSTATUS status = state->files.volume.Mount();
        if (!NT_SUCCESS(status)) return status;
    }
    fileSystem.reset(new MountedFileSystem(std::move(state)));
    return STATUS_SUCCESS;
}

NTSTATUS MountedFileSystem::Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                                 ULONG_PTR& information) {
    if (request.disposition < FILE_OPEN || request.disposition > FILE_OVERWRITE_IF)
        return STATUS_INVALID_PARAMETER;
    ShareClaim claim = MakeShareClaim(request.access, request.share);
    claim.write = claim.write || Empties(request.disposition);  // emptying a file is writing it
    std::unique_ptr<MountedOpen> opened;
    std::shared_ptr<SharedFile> target;
    {
        const host::HostGuard guard(state_->files.volume.Lock());
        FilePlace place;
        NTSTATUS status = state_->Locate(request.path, place);
        if (NT_SUCCESS(status)) status = state_->Admit(request, claim, place, target, information);
        if (!NT_SUCCESS(status)) return status;
        status = host::WithinMemory([&]() KVR_REQUIRES(state_->files.volume.Lock()) {
            opened = std::make_unique<MountedOpen>(state_, target, state_->MakeFileObject(request, *target),
                                                   claim, request);
            return STATUS_SUCCESS;
        });
        if (!NT_SUCCESS(status)) {
            KVR_DISCARD(state_->files.Leave(target, claim), "the open has failed already");
            return status;
        }
    }
    if (information == FILE_OVERWRITTEN) {
        const NTSTATUS status = target->data.Truncate(request.attributes);
        if (!NT_SUCCESS(status)) return status;
    }
    file = std::move(opened);
    return STATUS_SUCCESS;
}

NTSTATUS MountedFileSystem::Delete(const std::u16string& path) {
    const host::HostGuard guard(state_->files.volume.Lock());
    FilePlace place;
    NTSTATUS status = state_->LocateExisting(path, place);
    if (!NT_SUCCESS(status)) return status;
    if (place.entry.directory) return state_->RemoveDirectory(place);
    ShareClaim claim;
    std::shared_ptr<SharedFile> file;
    status = state_->AdmitRemoval(place, claim, file);
    if (!NT_SUCCESS(status)) return status;
    file->removeName = place.link;
    return state_->files.Leave(file, claim);
}

NTSTATUS MountedFileSystem::Rename(const std::u16string& from, const std::u16string& to) {
    if (!state_->files.volume.Traits().movesNames) return STATUS_NOT_SUPPORTED;
    const host::HostGuard guard(state_->files.volume.Lock());
    FilePlace source, target;
    NTSTATUS status = state_->Locate(from, source);
    if (NT_SUCCESS(status)) status = state_->Locate(to, target);
    if (!NT_SUCCESS(status)) return status;
    if (!source.exists) return STATUS_OBJECT_NAME_NOT_FOUND;
    if (source.link.name.empty()) return STATUS_ACCESS_DENIED;
    if (target.exists) return STATUS_OBJECT_NAME_COLLISION;

    if (source.entry.directory) {
        if (std::find(target.above.begin(), target.above.end(), source.id.number) != target.above.end())
            return STATUS_INVALID_PARAMETER;  // a directory cannot move below itself
        if (state_->files.AnyBelow(source.id)) return STATUS_ACCESS_DENIED;
        return state_->MoveName(source, target);
    }
    ShareClaim claim;
    std::shared_ptr<SharedFile> file;
    status = state_->AdmitRemoval(source, claim, file);
    if (!NT_SUCCESS(status)) return status;
    status = state_->MoveName(source, target);
    if (NT_SUCCESS(status)) file->above = target.above;
    KVR_DISCARD(state_->files.Leave(file, claim), "no deletion is due with it");
    return status;
}

NTSTATUS MountedFileSystem::MakeDirectory(const std::u16string& path) {
    const host::HostGuard guard(state_->files.volume.Lock());
    FilePlace place;
    const NTSTATUS status = state_->Locate(path, place);
    if (!NT_SUCCESS(status)) return status;
    return place.exists ? STATUS_OBJECT_NAME_COLLISION : state_->Create(place, true, 0);
}

NTSTATUS MountedFileSystem::List(const std::u16string& path, std::vector<DirectoryEntry>& entries) {
    const host::HostGuard guard(state_->files.volume.Lock());
    FilePlace place;
    const NTSTATUS status = state_->LocateExisting(path, place);
    if (!NT_SUCCESS(status)) return status;
    if (!place.entry.directory) return STATUS_NOT_A_DIRECTORY;
    return state_->files.volume.Look(
        [&](VolumeFormat& format) { return ListDirectory(format, place.id, entries); });
}

NTSTATUS MountedFileSystem::Query(const std::u16string& path, DirectoryEntry& entry) {
    const host::HostGuard guard(state_->files.volume.Lock());
    FilePlace place;
    const NTSTATUS status = state_->LocateExisting(path, place);
    if (NT_SUCCESS(status)) entry = place.entry;
    return status;
}

NTSTATUS MountedFileSystem::Runs(const std::u16string& path, FileRuns& runs) {
    const host::HostGuard guard(state_->files.volume.Lock());
    FilePlace place;
    NTSTATUS status = state_->LocateExisting(path, place);
    if (!NT_SUCCESS(status)) return status;
    FileShape shape;
    status = state_->files.volume.Look([&](VolumeFormat& format) { return format.LoadShape(place.id, shape); });
    if (NT_SUCCESS(status)) runs = shape.runs;
    return status;
}

NTSTATUS MountedFileSystem::FreeSpace(std::uint64_t& bytes) {
    const host::HostGuard guard(state_->files.volume.Lock());
    return state_->files.volume.Look([&](VolumeFormat& format) { return format.FreeSpace(bytes); });
}

std::string MountedFileSystem::Label() {
    const host::HostGuard guard(state_->files.volume.Lock());
    std::string label;
    const auto look = [&](VolumeFormat& format) {
        label = format.Label();
        return STATUS_SUCCESS;
    };
    KVR_DISCARD(state_->files.volume.Look(look), "a volume that cannot be read shows no label");
    return label;
}

std::string MountedFileSystem::ReadOnlyReason() const {
    const host::HostGuard guard(state_->files.volume.Lock());
    return state_->files.volume.ReadOnlyReason();
}

FileSystemKind MountedFileSystem::Kind() const {
    return state_->files.volume.Traits().kind;
}

std::u16string MountedFileSystem::DriverName() const {
    return state_->files.volume.Traits().driverName;
}

NTSTATUS MountedFileSystem::Flush() {
    const host::HostGuard guard(state_->files.volume.Lock());
    return state_->files.volume.Closed() ? STATUS_DEVICE_NOT_READY : state_->files.volume.Io().Flush();
}

NTSTATUS MountedFileSystem::Dismount() {
    return End(true);
}

void MountedFileSystem::Abandon() {
    KVR_DISCARD(End(false), "nothing was sent that could have failed");
}

// Closing the mount first keeps new opens out; transfers of file data that are under way are waited for.
NTSTATUS MountedFileSystem::End(bool orderly) {
    SharedFiles open;
    {
        const host::HostGuard guard(state_->files.volume.Lock());
        if (state_->files.volume.Closed()) return STATUS_SUCCESS;
        open = host::Insist("the end of a file system", [&]() KVR_REQUIRES(state_->files.volume.Lock()) {
            return state_->files.ForgetAll(orderly);
        });
        state_->files.volume.Close();
    }
    for (const std::shared_ptr<SharedFile>& file : open) file->data.Disconnect();
    return orderly ? state_->files.volume.Io().Flush() : STATUS_SUCCESS;
}

// As for the end, the mount first: no file is opened or loaded anew behind it.
void MountedFileSystem::Suspend() {
    SharedFiles open;
    {
        const host::HostGuard guard(state_->files.volume.Lock());
        open = host::Insist("a file system's open files", [&]() KVR_REQUIRES(state_->files.volume.Lock()) {
            return state_->files.BringUpToDate();
        });
        state_->files.volume.Suspend();
    }
    for (const std::shared_ptr<SharedFile>& file : open) file->data.Suspend();
}

void MountedFileSystem::Resume() {
    SharedFiles open;
    {
        const host::HostGuard guard(state_->files.volume.Lock());
        state_->files.volume.Resume();
        open = host::Insist("a file system's open files",
                            [&]() KVR_REQUIRES(state_->files.volume.Lock()) { return state_->files.All(); });
    }
    for (const std::shared_ptr<SharedFile>& file : open) file->data.Resume();
}

FileSystemFactory FactoryOf(FormatMaker make) {
    return [make](VolumeIo& io, NTSTATUS& status) -> std::unique_ptr<FileSystem> {
        std::unique_ptr<MountedFileSystem> fileSystem;
        status = MountedFileSystem::Mount(make(io), fileSystem);
        return fileSystem;
    };
}

}  // namespace machine
