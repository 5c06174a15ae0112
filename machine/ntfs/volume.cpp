#include "machine/ntfs/volume.h"
#include <mutex>
#include "machine/ntfs/library.h"
#include "machine/ntfs/mirror.h"

namespace machine {

using namespace ntfs_library;

namespace {

// The library would write to stderr what every caller here learns from a status.
void SilenceLibrary() {
    static std::once_flag once;
    std::call_once(once, [] { ntfs_log_set_handler(ntfs_log_handler_null); });
}

NTSTATUS Translate(int error) {
    switch (error) {
        case ENOENT:
            return STATUS_OBJECT_NAME_NOT_FOUND;
        case EEXIST:
            return STATUS_OBJECT_NAME_COLLISION;
        case ENOSPC:
        case ERANGE:
        case EFBIG:
            return STATUS_DISK_FULL;
        case EROFS:
            return STATUS_MEDIA_WRITE_PROTECTED;
        case ENOTEMPTY:
            return STATUS_DIRECTORY_NOT_EMPTY;
        case ENOTDIR:
            return STATUS_NOT_A_DIRECTORY;
        case EISDIR:
            return STATUS_FILE_IS_A_DIRECTORY;
        case EINVAL:
            return STATUS_INVALID_PARAMETER;
        case ENOMEM:
            return STATUS_INSUFFICIENT_RESOURCES;
        case EACCES:
        case EPERM:
            return STATUS_ACCESS_DENIED;
        case EOPNOTSUPP:
            return STATUS_NOT_SUPPORTED;
        default:
            return STATUS_FILE_CORRUPT_ERROR;
    }
}

NTSTATUS TranslateMount(int error) {
    switch (error) {
        case EINVAL:
            return STATUS_UNRECOGNIZED_VOLUME;
        case ENOMEM:
            return STATUS_INSUFFICIENT_RESOURCES;
        default:
            return STATUS_DISK_CORRUPT_ERROR;
    }
}

}  // namespace

NTSTATUS NtfsOperation::Failed(int error) const {
    const NTSTATUS status = cache_.Failure();
    return NT_SUCCESS(status) ? Translate(error) : status;
}

NtfsVolume::NtfsVolume(VolumeIo& io) : io_(io), names_(io), cache_(io, names_), device_(io, cache_) {
    SilenceLibrary();
}

NtfsVolume::~NtfsVolume() {
    const VolumeLockGuard guard(lock_);
    Close();
}

NTSTATUS NtfsVolume::MountOnce() {
    ntfs_device* device = device_.Allocate();
    if (device == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    ntfs_volume* volume = ntfs_device_mount(device, NTFS_MNT_MAY_RDONLY);
    if (volume == nullptr) {
        const int error = errno;
        const NTSTATUS failure = cache_.Failure();
        NtfsDevice::Free(device);
        cache_.Discard();
        return NT_SUCCESS(failure) ? TranslateMount(error) : failure;
    }
    volume_ = volume;
    names_.SetVolume(volume);
    readOnly_ = NVolReadOnly(volume) != 0;
    NTSTATUS status = ntfs_set_ignore_case(volume) == 0 ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
    if (NT_SUCCESS(status)) status = Commit(CommitOrder::TakeFirst, nullptr);
    if (!NT_SUCCESS(status)) Forget();
    return status;
}

NTSTATUS NtfsVolume::Mount() {
    NTSTATUS status = MountOnce();
    if (status == STATUS_DISK_CORRUPT_ERROR && NT_SUCCESS(RepairNtfsMirror(io_, names_))) status = MountOnce();
    if (NT_SUCCESS(status)) closed_ = false;
    return status;
}

void NtfsVolume::Close() {
    Forget();
    closed_ = true;
}

NTSTATUS NtfsVolume::Begin() {
    if (closed_) return STATUS_DEVICE_NOT_READY;
    if (suspended_) return STATUS_DEVICE_BUSY;
    if (volume_ == nullptr) return Mount();
    cache_.Discard();
    return STATUS_SUCCESS;
}

void NtfsVolume::Suspend() {
    Forget();
    suspended_ = true;
}

// The library marks the inode of its table of records dirty when the table grows, and stores it when it sees
// fit.
NTSTATUS NtfsVolume::Commit(CommitOrder order, PFILE_OBJECT other) {
    const OtherScope scope(names_, other);
    for (ntfs_inode* inode : {volume_->mft_ni, volume_->lcnbmp_ni})
        if (NInoDirty(inode) && ntfs_inode_sync(inode) != 0) {
            const NTSTATUS failure = cache_.Failure();
            return NT_SUCCESS(failure) ? Translate(errno) : failure;
        }
    return cache_.Commit(order);
}

void NtfsVolume::Forget() {
    names_.SetVolume(nullptr);  // its runs are about to go
    if (volume_ != nullptr)
        ntfs_umount(volume_, static_cast<BOOL>(0));  // what it stores is dropped with the cache
    volume_ = nullptr;
    cache_.Discard();
}

}  // namespace machine
