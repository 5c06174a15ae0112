#include "machine/ntfs/format.h"
#include <mutex>
#include "machine/files/mounted_file_system.h"
#include "machine/ntfs/device.h"
#include "machine/ntfs/library.h"
#include "machine/ntfs/mirror.h"

namespace machine {

using namespace ntfs_library;

namespace {

constexpr FormatTraits kTraits = {.kind = FileSystemKind::Ntfs,
                                  .driverName = u"",
                                  .movesNames = true,
                                  .writesSpecial = true,
                                  .showsSizesInFolder = true,
                                  .emptiesFirst = false};

// The library would write to stderr what every caller here learns from a status.
void SilenceLibrary() {
    static std::once_flag once;
    std::call_once(once, [] { ntfs_log_set_handler(ntfs_log_handler_null); });
}

constexpr LibraryError kErrors[] = {{ENOENT, STATUS_OBJECT_NAME_NOT_FOUND},
                                    {EEXIST, STATUS_OBJECT_NAME_COLLISION},
                                    {ENOSPC, STATUS_DISK_FULL},
                                    {ERANGE, STATUS_DISK_FULL},
                                    {EFBIG, STATUS_DISK_FULL},
                                    {EROFS, STATUS_MEDIA_WRITE_PROTECTED},
                                    {ENOTEMPTY, STATUS_DIRECTORY_NOT_EMPTY},
                                    {ENOTDIR, STATUS_NOT_A_DIRECTORY},
                                    {EISDIR, STATUS_FILE_IS_A_DIRECTORY},
                                    {EINVAL, STATUS_INVALID_PARAMETER},
                                    {ENOMEM, STATUS_INSUFFICIENT_RESOURCES},
                                    {EACCES, STATUS_ACCESS_DENIED},
                                    {EPERM, STATUS_ACCESS_DENIED},
                                    {EOPNOTSUPP, STATUS_NOT_SUPPORTED}};
constexpr LibraryError kMountErrors[] = {{EINVAL, STATUS_UNRECOGNIZED_VOLUME},
                                         {ENOMEM, STATUS_INSUFFICIENT_RESOURCES}};

// The library refuses to change what a sleeping system believes to know.
std::string WhyReadOnly(_ntfs_volume* volume) {
    if (NVolReadOnly(volume) == 0) return {};
    if (ntfs_volume_check_hiberfile(volume, 0) != 0 && errno == EPERM)
        return "the system that it belongs to is hibernated (a fast start-up is that as well): start it and "
               "shut "
               "it down in full";
    return "it was not left clean by the system that it belongs to";
}

}  // namespace

NTSTATUS NtfsFormat::Failed(int error) const {
    return Failure(kErrors, error, STATUS_FILE_CORRUPT_ERROR);
}

NtfsFormat::NtfsFormat(VolumeIo& io) : VolumeFormat(kTraits, io, names_), names_(io) {
    SilenceLibrary();
}

NTSTATUS NtfsFormat::OpenOnce() {
    ntfs_device* device = AllocateNtfsDevice(Cache());
    if (device == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    volume_ = ntfs_device_mount(device, NTFS_MNT_MAY_RDONLY);
    if (volume_ == nullptr) {
        const NTSTATUS status = Failure(kMountErrors, errno, STATUS_DISK_CORRUPT_ERROR);
        ntfs_device_free(device);
        return status;
    }
    names_.SetVolume(volume_);
    readOnly_ = WhyReadOnly(volume_);
    return ntfs_set_ignore_case(volume_) == 0 ? Commit(CommitOrder::TakeFirst) : STATUS_INSUFFICIENT_RESOURCES;
}

NTSTATUS NtfsFormat::Open() {
    NTSTATUS status = OpenOnce();
    if (status != STATUS_DISK_CORRUPT_ERROR) return status;
    Drop();
    Cache().Discard();
    return NT_SUCCESS(RepairNtfsMirror(Io(), names_)) ? OpenOnce() : status;
}

// The library marks the inode of its table of records dirty when the table grows, and stores it when it sees
// fit.
NTSTATUS NtfsFormat::Commit(CommitOrder order) {
    for (ntfs_inode* inode : {volume_->mft_ni, volume_->lcnbmp_ni})
        if (NInoDirty(inode) && ntfs_inode_sync(inode) != 0) return Failed(errno);
    return Cache().Commit(order);
}

void NtfsFormat::Drop() {
    names_.SetVolume(nullptr);  // its runs are about to go
    if (volume_ != nullptr)
        ntfs_umount(volume_, static_cast<BOOL>(0));  // what it stores is dropped with the cache
    volume_ = nullptr;
}

NTSTATUS NtfsFormat::FreeSpace(std::uint64_t& bytes) {
    if (!NVolFreeSpaceKnown(volume_) && ntfs_volume_get_free_space(volume_) != 0) return Failed(errno);
    bytes = static_cast<std::uint64_t>(volume_->free_clusters) << volume_->cluster_size_bits;
    return STATUS_SUCCESS;
}

std::string NtfsFormat::Label() const {
    return volume_->vol_name != nullptr ? volume_->vol_name : "";
}

std::unique_ptr<VolumeFormat> MakeNtfsFormat(VolumeIo& io) {
    return std::make_unique<NtfsFormat>(io);
}

FileSystemFactory NtfsFactory() {
    return FactoryOf(MakeNtfsFormat);
}

}  // namespace machine
