#include "machine/ext/file_system.h"
#include <algorithm>
#include <cstddef>
#include "machine/ext/library.h"
#include "machine/ext/open_files.h"
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

}  // namespace

struct ExtFileSystem::State {
    explicit State(VolumeIo& io) : files(io) {}

    [[nodiscard]] NTSTATUS Locate(const std::u16string& path, ExtPlace& place)
        KVR_REQUIRES(files.volume.Lock()) {
        return files.volume.Look(
            [&](const ExtOperation& operation) { return LocateExtPath(operation, path, place); });
    }
    // What stands at a path.
    [[nodiscard]] NTSTATUS LocateExisting(const std::u16string& path, ExtPlace& place)
        KVR_REQUIRES(files.volume.Lock()) {
        const NTSTATUS status = Locate(path, place);
        return NT_SUCCESS(status) && !place.exists ? STATUS_OBJECT_NAME_NOT_FOUND : status;
    }
    [[nodiscard]] NTSTATUS Create(ExtPlace& place, ULONG attributes) KVR_REQUIRES(files.volume.Lock());
    [[nodiscard]] NTSTATUS CheckExisting(const host::FileOpen& request, const ShareClaim& claim,
                                         const ExtPlace& place) KVR_REQUIRES(files.volume.Lock());
    [[nodiscard]] NTSTATUS Admit(const host::FileOpen& request, const ShareClaim& claim, ExtPlace& place,
                                 std::shared_ptr<ExtOpenFile>& file, ULONG_PTR& information)
        KVR_REQUIRES(files.volume.Lock());

    ExtOpenFiles files;
};

// One open, as the host kernel holds it behind a handle.
class ExtOpen : public host::OpenFile {
public:
    ExtOpen(std::shared_ptr<ExtFileSystem::State> state, std::shared_ptr<ExtOpenFile> file,
            const ShareClaim& claim, const host::FileOpen& request)
        : state_(std::move(state)),
          file_(std::move(file)),
          object_(state_->files.volume.Io(), request.path, file_.get()),
          claim_(claim),
          rights_(request, state_->files.volume.Io().SectorSize()) {}

    ~ExtOpen() override {
        const VolumeLockGuard guard(state_->files.volume.Lock());
        KVR_DISCARD(state_->files.Leave(file_, claim_), "a close has nobody to report a failure to");
    }
    ExtOpen(const ExtOpen&) = delete;
    ExtOpen& operator=(const ExtOpen&) = delete;

    NTSTATUS Read(LONGLONG offset, void* buffer, ULONG length, ULONG& done) override {
        done = 0;
        const NTSTATUS status = rights_.CheckRead(offset, length);
        if (!NT_SUCCESS(status)) return status;
        return file_->file.Read(object_.Get(), static_cast<std::uint64_t>(offset), buffer, length, done);
    }

    NTSTATUS Write(LONGLONG offset, const void* buffer, ULONG length, ULONG& done) override {
        done = 0;
        const NTSTATUS status = rights_.CheckWrite(offset, length);
        if (!NT_SUCCESS(status)) return status;
        return file_->file.Write(object_.Get(), static_cast<std::uint64_t>(offset), buffer, length, done);
    }

private:
    const std::shared_ptr<ExtFileSystem::State> state_;
    const std::shared_ptr<ExtOpenFile> file_;
    NamedFileObject object_;
    const ShareClaim claim_;
    const OpenRights rights_;
};

NTSTATUS ExtFileSystem::State::Create(ExtPlace& place, ULONG attributes) {
    const NTSTATUS status = files.volume.Change(CommitOrder::TakeFirst, [&](const ExtOperation& operation) {
        return CreateExtFile(operation, place.link, attributes, place.reference);
    });
    place.exists = NT_SUCCESS(status);
    return status;
}

NTSTATUS ExtFileSystem::State::CheckExisting(const host::FileOpen& request, const ShareClaim& claim,
                                             const ExtPlace& place) {
    if (request.disposition == FILE_CREATE) return STATUS_OBJECT_NAME_COLLISION;
    if (place.kind == ExtKind::Directory) return STATUS_FILE_IS_A_DIRECTORY;
    if (place.kind == ExtKind::Other) return STATUS_NOT_SUPPORTED;
    const bool readOnly = !files.volume.ReadOnlyReason().empty();
    return (claim.write || claim.remove) && readOnly ? STATUS_MEDIA_WRITE_PROTECTED : STATUS_SUCCESS;
}

NTSTATUS ExtFileSystem::State::Admit(const host::FileOpen& request, const ShareClaim& claim, ExtPlace& place,
                                     std::shared_ptr<ExtOpenFile>& file, ULONG_PTR& information) {
    NTSTATUS status = Locate(request.path, place);
    if (!NT_SUCCESS(status)) return status;
    information = Empties(request.disposition) ? FILE_OVERWRITTEN : FILE_OPENED;
    if (place.exists) {
        status = CheckExisting(request, claim, place);
    } else {
        if (!Creates(request.disposition)) return STATUS_OBJECT_NAME_NOT_FOUND;
        status = Create(place, request.attributes);
        information = FILE_CREATED;
    }
    if (NT_SUCCESS(status)) status = files.Find(place, file);
    return NT_SUCCESS(status) ? files.Enter(file, claim) : status;
}

ExtFileSystem::ExtFileSystem(std::shared_ptr<State> state) : state_(std::move(state)) {}

ExtFileSystem::~ExtFileSystem() {
    KVR_DISCARD(Dismount(), "a destructor has nobody to report a failed flush to");
}

NTSTATUS ExtFileSystem::Mount(VolumeIo& io, std::unique_ptr<ExtFileSystem>& fileSystem) {
    auto state = std::make_shared<State>(io);
    {
        const VolumeLockGuard guard(state->files.volume.Lock());
        const NTSTATUS status = state->files.volume.Mount();
        if (!NT_SUCCESS(status)) return status;
    }
    fileSystem.reset(new ExtFileSystem(std::move(state)));
    return STATUS_SUCCESS;
}

NTSTATUS ExtFileSystem::Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                             ULONG_PTR& information) {
    if (request.disposition < FILE_OPEN || request.disposition > FILE_OVERWRITE_IF)
        return STATUS_INVALID_PARAMETER;
    ShareClaim claim = MakeShareClaim(request.access, request.share);
    claim.write = claim.write || Empties(request.disposition);  // emptying a file is writing it
    std::unique_ptr<ExtOpen> opened;
    std::shared_ptr<ExtOpenFile> target;
    {
        const VolumeLockGuard guard(state_->files.volume.Lock());
        ExtPlace place;
        const NTSTATUS status = state_->Admit(request, claim, place, target, information);
        if (!NT_SUCCESS(status)) return status;
        opened = std::make_unique<ExtOpen>(state_, target, claim, request);
    }
    if (information == FILE_OVERWRITTEN) {
        const NTSTATUS status = target->file.Truncate(request.attributes);
        if (!NT_SUCCESS(status)) return status;
    }
    file = std::move(opened);
    return STATUS_SUCCESS;
}

NTSTATUS ExtFileSystem::Delete(const std::u16string& path) {
    const VolumeLockGuard guard(state_->files.volume.Lock());
    const host::FileOpen request{path, DELETE, kAllShares, FILE_OPEN, 0, 0};
    const ShareClaim claim = MakeShareClaim(request.access, request.share);
    ExtPlace place;
    std::shared_ptr<ExtOpenFile> file;
    ULONG_PTR information = 0;
    const NTSTATUS admitted = state_->Admit(request, claim, place, file, information);
    if (!NT_SUCCESS(admitted)) return admitted;
    file->removeName = place.link;
    return state_->files.Leave(file, claim);
}

NTSTATUS ExtFileSystem::Rename(const std::u16string&, const std::u16string&) {
    return STATUS_NOT_SUPPORTED;
}

NTSTATUS ExtFileSystem::MakeDirectory(const std::u16string& path) {
    const VolumeLockGuard guard(state_->files.volume.Lock());
    ExtPlace place;
    const NTSTATUS status = state_->Locate(path, place);
    if (!NT_SUCCESS(status)) return status;
    if (place.exists) return STATUS_OBJECT_NAME_COLLISION;
    return state_->files.volume.Change(CommitOrder::TakeFirst, [&](const ExtOperation& operation) {
        return CreateExtDirectory(operation, place.link);
    });
}

NTSTATUS ExtFileSystem::List(const std::u16string& path, std::vector<DirectoryEntry>& entries) {
    const VolumeLockGuard guard(state_->files.volume.Lock());
    ExtPlace place;
    const NTSTATUS status = state_->LocateExisting(path, place);
    if (!NT_SUCCESS(status)) return status;
    if (place.kind != ExtKind::Directory) return STATUS_NOT_A_DIRECTORY;
    return state_->files.volume.Look([&](const ExtOperation& operation) {
        return ListExtDirectory(operation, place.reference.inode, entries);
    });
}

NTSTATUS ExtFileSystem::Query(const std::u16string& path, DirectoryEntry& entry) {
    const VolumeLockGuard guard(state_->files.volume.Lock());
    ExtPlace place;
    const NTSTATUS status = state_->LocateExisting(path, place);
    if (NT_SUCCESS(status)) entry = place.entry;
    return status;
}

NTSTATUS ExtFileSystem::FreeSpace(std::uint64_t& bytes) {
    const VolumeLockGuard guard(state_->files.volume.Lock());
    return state_->files.volume.Look([&](const ExtOperation& operation) {
        bytes = ext2fs_free_blocks_count(operation.Library()->super) * operation.Library()->blocksize;
        return STATUS_SUCCESS;
    });
}

std::string ExtFileSystem::ReadOnlyReason() const {
    const VolumeLockGuard guard(state_->files.volume.Lock());
    return state_->files.volume.ReadOnlyReason();
}

bool ExtFileSystem::ReadOnly() const {
    return !ReadOnlyReason().empty();
}

NTSTATUS ExtFileSystem::Flush() {
    const VolumeLockGuard guard(state_->files.volume.Lock());
    return state_->files.volume.Closed() ? STATUS_DEVICE_NOT_READY : state_->files.volume.Io().Flush();
}

NTSTATUS ExtFileSystem::Dismount() {
    return End(true);
}

void ExtFileSystem::Abandon() {
    KVR_DISCARD(End(false), "nothing was sent that could have failed");
}

// Closing the mount first keeps new opens out; transfers of file data that are under way are waited for.
NTSTATUS ExtFileSystem::End(bool orderly) {
    std::vector<std::shared_ptr<ExtOpenFile>> open;
    {
        const VolumeLockGuard guard(state_->files.volume.Lock());
        if (state_->files.volume.Closed()) return STATUS_SUCCESS;
        open = state_->files.ForgetAll(orderly);
        state_->files.volume.Close();
    }
    for (const std::shared_ptr<ExtOpenFile>& file : open) file->file.Disconnect();
    return orderly ? state_->files.volume.Io().Flush() : STATUS_SUCCESS;
}

// As for the end, the mount first: no file is opened or loaded anew behind it.
void ExtFileSystem::Suspend() {
    std::vector<std::shared_ptr<ExtOpenFile>> open;
    {
        const VolumeLockGuard guard(state_->files.volume.Lock());
        state_->files.CallOffDeletions();
        state_->files.volume.Suspend();
        open = state_->files.All();
    }
    for (const std::shared_ptr<ExtOpenFile>& file : open) file->file.Suspend();
}

void ExtFileSystem::Resume() {
    std::vector<std::shared_ptr<ExtOpenFile>> open;
    {
        const VolumeLockGuard guard(state_->files.volume.Lock());
        state_->files.volume.Resume();
        open = state_->files.All();
    }
    for (const std::shared_ptr<ExtOpenFile>& file : open) file->file.Resume();
}

NTSTATUS LooksLikeExt(VolumeIo& io, bool& ext) {
    const std::uint32_t sector = io.SectorSize();
    const std::uint32_t length = std::max<std::uint32_t>(sector, SUPERBLOCK_OFFSET + SUPERBLOCK_SIZE);
    ext = false;
    if (io.Size() < length) return STATUS_SUCCESS;
    std::vector<std::uint8_t> head(length);
    const NTSTATUS status = io.Read(0, head.data(), length, nullptr);
    if (!NT_SUCCESS(status)) return status;
    const std::uint8_t* magic = &head[SUPERBLOCK_OFFSET + offsetof(ext2_super_block, s_magic)];
    ext = (magic[0] | magic[1] << 8) == EXT2_SUPER_MAGIC;
    return STATUS_SUCCESS;
}

FileSystemFactory ExtFactory() {
    return [](VolumeIo& io, NTSTATUS& status) -> std::unique_ptr<FileSystem> {
        std::unique_ptr<ExtFileSystem> fileSystem;
        status = ExtFileSystem::Mount(io, fileSystem);
        return fileSystem;
    };
}

}  // namespace machine
