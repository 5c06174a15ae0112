#include <algorithm>
#include "machine/ntfs/format.h"
#include "machine/ntfs/inode.h"

namespace machine {

using namespace ntfs_library;

namespace {

static_assert(sizeof(ntfschar) == sizeof(char16_t));

constexpr ULONG kDirectoryAttribute = 0x10, kArchiveAttribute = 0x20;
constexpr ULONG kSettable =
    FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | kArchiveAttribute;
constexpr ULONG kReported = 0x7FB7;  // the attributes that the platform reports, directories told apart below
constexpr auto kModified = static_cast<ntfs_time_update_flags>(NTFS_UPDATE_MCTIME);

const ntfschar* Chars(const std::u16string& name) {
    return reinterpret_cast<const ntfschar*>(name.data());
}

u8 Length(const std::u16string& name) {
    return static_cast<u8>(name.size());
}

bool IsForbidden(ntfs_volume* volume, const std::u16string& name) {
    return ntfs_forbidden_names(volume, Chars(name), Length(name), static_cast<BOOL>(1)) != 0;
}

FileId IdOf(std::uint64_t reference) {
    return {MREF(reference), MSEQNO(reference)};
}

bool IsOwnFile(const FileId& id) {
    return id.number < FILE_first_user && id.number != FILE_root;
}

int Collect(void* context, const ntfschar* name, const int length, const int type, const s64,
            const MFT_REF reference, const unsigned) {
    const auto* chars = reinterpret_cast<const char16_t*>(name);
    std::u16string text(chars, static_cast<std::size_t>(length));
    const bool shortName = (type & 3) == FILE_NAME_DOS;  // the same file has its long name, too
    if (shortName || text == u"." || text == u".." || IsOwnFile(IdOf(reference))) return 0;
    static_cast<std::vector<VolumeFormat::Name>*>(context)->push_back({std::move(text), IdOf(reference)});
    return 0;
}

// While names are looked up without regard to case the library lists them in lower case; the names are wanted
// as they stand.
int ReadNames(ntfs_volume* volume, ntfs_inode* directory, std::vector<VolumeFormat::Name>& names) {
    s64 position = 0;
    NVolSetCaseSensitive(volume);
    const int result = ntfs_readdir(directory, &position, &names, Collect);
    const int error = errno;
    NVolClearCaseSensitive(volume);
    errno = error;
    return result;
}

}  // namespace

FileId NtfsFormat::Root() const {
    return {FILE_root, 0};
}

NTSTATUS NtfsFormat::OpenInode(const FileId& id, NtfsInode& inode) const {
    inode = NtfsInode(ntfs_inode_open(volume_, MK_MREF(id.number, id.generation)));
    if (inode) return STATUS_SUCCESS;
    // A name that leads to a record in other use or in none is damage, not a missing name.
    return errno == ENOENT ? Failed(EIO) : Failed(errno);
}

NTSTATUS NtfsFormat::OpenDirectory(const FileId& id, NtfsInode& directory) const {
    const NTSTATUS status = OpenInode(id, directory);
    return NT_SUCCESS(status) && !directory.IsDirectory() ? STATUS_NOT_A_DIRECTORY : status;
}

NTSTATUS NtfsFormat::OpenBoth(const FileLink& link, const FileId& id, NtfsInode& parent,
                              NtfsInode& inode) const {
    const NTSTATUS status = OpenInode(link.parent, parent);
    return NT_SUCCESS(status) ? OpenInode(id, inode) : status;
}

NTSTATUS NtfsFormat::LookUp(FileLink& link, bool& exists, FileId& id) {
    NtfsInode directory;
    const NTSTATUS status = OpenDirectory(link.parent, directory);
    if (!NT_SUCCESS(status)) return status;
    errno = 0;
    const std::uint64_t reference =
        ntfs_inode_lookup_by_name(directory.Get(), Chars(link.name), Length(link.name));
    exists = reference != static_cast<std::uint64_t>(-1);
    if (!exists) return errno == ENOENT ? STATUS_SUCCESS : Failed(errno);
    id = IdOf(reference);
    return IsOwnFile(id) ? STATUS_ACCESS_DENIED : STATUS_SUCCESS;
}

NTSTATUS NtfsFormat::Describe(FileId& id, DirectoryEntry& entry) {
    NtfsInode inode;
    const NTSTATUS status = OpenInode(id, inode);
    if (!NT_SUCCESS(status)) return status;
    entry.directory = inode.IsDirectory();
    entry.size = entry.directory ? 0 : static_cast<std::uint64_t>(inode.Get()->data_size);
    entry.attributes = le32_to_cpu(inode.Get()->flags) & kReported & ~kDirectoryAttribute;
    if (entry.directory) entry.attributes |= kDirectoryAttribute;
    if (entry.attributes == 0) entry.attributes = FILE_ATTRIBUTE_NORMAL;
    return STATUS_SUCCESS;
}

NTSTATUS NtfsFormat::ReadDirectory(const FileId& id, std::vector<Name>& names) {
    NtfsInode directory;
    const NTSTATUS status = OpenDirectory(id, directory);
    if (!NT_SUCCESS(status)) return status;
    return ReadNames(volume_, directory.Get(), names) == 0 ? STATUS_SUCCESS : Failed(errno);
}

// A directory that is still open must not be changed a second time by closing its new file, so it goes first.
NTSTATUS NtfsFormat::Create(const FileLink& link, bool directory, ULONG attributes, FileId& id) {
    if (IsForbidden(volume_, link.name)) return STATUS_OBJECT_NAME_INVALID;
    NtfsInode parent;
    const NTSTATUS status = OpenInode(link.parent, parent);
    if (!NT_SUCCESS(status)) return status;
    NtfsInode made(
        ntfs_create(parent.Get(), 0, Chars(link.name), Length(link.name), directory ? S_IFDIR : S_IFREG));
    if (!made) return Failed(errno);
    ntfs_inode_update_times(parent.Get(), kModified);
    if (!parent.Close()) return Failed(errno);
    id = {made.Get()->mft_no, le16_to_cpu(made.Get()->mrec->sequence_number)};
    made.SetAttributes(attributes);
    return made.Close() ? STATUS_SUCCESS : Failed(errno);
}

NTSTATUS NtfsFormat::Remove(const FileLink& link, const FileId& id) {
    NtfsInode parent, inode;
    const NTSTATUS status = OpenBoth(link, id, parent, inode);
    if (!NT_SUCCESS(status)) return status;
    // Closes both, also when it fails.
    const int result =
        ntfs_delete(volume_, nullptr, inode.Release(), parent.Release(), Chars(link.name), Length(link.name));
    return result == 0 ? STATUS_SUCCESS : Failed(errno);
}

NTSTATUS NtfsFormat::AddName(const FileLink& link, const FileId& id) {
    if (IsForbidden(volume_, link.name)) return STATUS_OBJECT_NAME_INVALID;
    NtfsInode parent, inode;
    const NTSTATUS status = OpenBoth(link, id, parent, inode);
    if (!NT_SUCCESS(status)) return status;
    if (ntfs_link(inode.Get(), parent.Get(), Chars(link.name), Length(link.name)) != 0) return Failed(errno);
    ntfs_inode_update_times(parent.Get(), kModified);
    return parent.Close() && inode.Close() ? STATUS_SUCCESS : Failed(errno);
}

void NtfsInode::SetAttributes(ULONG attributes) {
    const u32 kept = le32_to_cpu(inode_->flags) & ~kSettable;
    inode_->flags =
        static_cast<FILE_ATTR_FLAGS>(cpu_to_le32(kept | (attributes & kSettable) | kArchiveAttribute));
    NInoFileNameSetDirty(inode_);
    NInoSetDirty(inode_);
}

NTSTATUS NtfsFormat::Refresh(const FileId& id) {
    NtfsInode inode;
    const NTSTATUS status = OpenInode(id, inode);
    if (!NT_SUCCESS(status)) return status;
    ntfs_inode_update_times(inode.Get(), kModified);
    NInoFileNameSetDirty(inode.Get());
    NInoSetDirty(inode.Get());
    return inode.Close() ? STATUS_SUCCESS : Failed(errno);
}

}  // namespace machine
