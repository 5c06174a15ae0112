#include "machine/ntfs/directory.h"
#include <algorithm>
#include "machine/ntfs/library.h"

namespace machine {

using namespace ntfs_library;

namespace {

static_assert(sizeof(ntfschar) == sizeof(char16_t));

constexpr ULONG kDirectoryAttribute = 0x10, kArchiveAttribute = 0x20;
constexpr ULONG kSettable =
    FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | kArchiveAttribute;
constexpr ULONG kReported = 0x7FB7;  // the attributes that the platform reports, directories told apart below
constexpr std::size_t kLongestName = 255;
constexpr auto kModified = static_cast<ntfs_time_update_flags>(NTFS_UPDATE_MCTIME);

const ntfschar* Chars(const std::u16string& name) {
    return reinterpret_cast<const ntfschar*>(name.data());
}

u8 Length(const std::u16string& name) {
    return static_cast<u8>(name.size());
}

bool IsOwnFile(std::uint64_t reference) {
    const std::uint64_t record = RecordOf(reference);
    return record < FILE_first_user && record != FILE_root;
}

bool SplitPath(const std::u16string& path, std::vector<std::u16string>& names) {
    if (path.empty() || path[0] != u'\\') return false;
    for (std::size_t at = 1; at < path.size();) {
        const std::size_t end = std::min(path.find(u'\\', at), path.size());
        if (end == at || end - at > kLongestName) return false;
        names.push_back(path.substr(at, end - at));
        at = end + 1;
    }
    return path.size() == 1 || path.back() != u'\\';
}

void Describe(const NtfsInode& inode, DirectoryEntry& entry) {
    entry.directory = inode.IsDirectory();
    entry.size = entry.directory ? 0 : static_cast<std::uint64_t>(inode.Get()->data_size);
    entry.attributes = le32_to_cpu(inode.Get()->flags) & kReported & ~kDirectoryAttribute;
    if (entry.directory) entry.attributes |= kDirectoryAttribute;
    if (entry.attributes == 0) entry.attributes = FILE_ATTRIBUTE_NORMAL;
}

// Looks one name up in a directory. `found` says whether it is there.
NTSTATUS LookUp(const NtfsOperation& operation, const NtfsLink& link, bool& found, std::uint64_t& reference) {
    NtfsInode directory;
    const NTSTATUS status = OpenNtfsInode(operation, link.parent, directory);
    if (!NT_SUCCESS(status)) return status;
    if (!directory.IsDirectory()) return STATUS_NOT_A_DIRECTORY;
    errno = 0;
    reference = ntfs_inode_lookup_by_name(directory.Get(), Chars(link.name), Length(link.name));
    found = reference != static_cast<std::uint64_t>(-1);
    if (!found && errno != ENOENT) return operation.Failed(errno);
    if (found && IsOwnFile(reference)) return STATUS_ACCESS_DENIED;
    return STATUS_SUCCESS;
}

struct Listing {
    struct Item {
        std::u16string name;
        std::uint64_t reference;
    };
    std::vector<Item> items;
};

int Collect(void* context, const ntfschar* name, const int length, const int type, const s64,
            const MFT_REF reference, const unsigned) {
    const auto* chars = reinterpret_cast<const char16_t*>(name);
    std::u16string text(chars, static_cast<std::size_t>(length));
    const bool shortName = (type & 3) == FILE_NAME_DOS;  // the same file has its long name, too
    if (shortName || text == u"." || text == u".." || IsOwnFile(reference)) return 0;
    static_cast<Listing*>(context)->items.push_back({std::move(text), reference});
    return 0;
}

// While names are looked up without regard to case the library lists them in lower case; the names are wanted
// as they stand.
int ReadNames(ntfs_volume* volume, ntfs_inode* directory, Listing& listing) {
    s64 position = 0;
    NVolSetCaseSensitive(volume);
    const int result = ntfs_readdir(directory, &position, &listing, Collect);
    const int error = errno;
    NVolClearCaseSensitive(volume);
    errno = error;
    return result;
}

}  // namespace

NTSTATUS OpenNtfsInode(const NtfsOperation& operation, std::uint64_t reference, NtfsInode& inode) {
    inode = NtfsInode(ntfs_inode_open(operation.Library(), reference));
    if (inode) return STATUS_SUCCESS;
    // A name that leads to a record in other use or in none is damage, not a missing name.
    return errno == ENOENT ? operation.Failed(EIO) : operation.Failed(errno);
}

NTSTATUS LocateNtfsPath(const NtfsOperation& operation, const std::u16string& path, NtfsPlace& place) {
    std::vector<std::u16string> names;
    if (!SplitPath(path, names)) return STATUS_OBJECT_NAME_INVALID;
    place = {};
    place.exists = true;
    place.reference = FILE_root;
    for (std::size_t i = 0; i < names.size(); ++i) {
        place.above.push_back(RecordOf(place.reference));
        place.link = {place.reference, names[i]};
        NTSTATUS status = LookUp(operation, place.link, place.exists, place.reference);
        if (status == STATUS_NOT_A_DIRECTORY) status = STATUS_OBJECT_PATH_NOT_FOUND;
        if (!NT_SUCCESS(status)) return status;
        if (!place.exists) return i + 1 == names.size() ? STATUS_SUCCESS : STATUS_OBJECT_PATH_NOT_FOUND;
    }
    NtfsInode inode;
    const NTSTATUS status = OpenNtfsInode(operation, place.reference, inode);
    if (!NT_SUCCESS(status)) return status;
    Describe(inode, place.entry);
    place.entry.name = place.link.name;
    return STATUS_SUCCESS;
}

NTSTATUS ListNtfsDirectory(const NtfsOperation& operation, std::uint64_t reference,
                           std::vector<DirectoryEntry>& entries) {
    NtfsInode directory;
    NTSTATUS status = OpenNtfsInode(operation, reference, directory);
    if (!NT_SUCCESS(status)) return status;
    if (!directory.IsDirectory()) return STATUS_NOT_A_DIRECTORY;
    Listing listing;
    if (ReadNames(operation.Library(), directory.Get(), listing) != 0) return operation.Failed(errno);
    directory.Drop();
    entries.clear();
    for (Listing::Item& item : listing.items) {
        NtfsInode inode;
        status = OpenNtfsInode(operation, item.reference, inode);
        if (!NT_SUCCESS(status)) return status;
        DirectoryEntry entry;
        Describe(inode, entry);
        entry.name = std::move(item.name);
        entries.push_back(std::move(entry));
    }
    return STATUS_SUCCESS;
}

// A directory that is still open must not be changed a second time by closing its new file, so it goes first.
NTSTATUS CreateNtfsEntry(const NtfsOperation& operation, const NtfsLink& link, bool directory, ULONG attributes,
                         std::uint64_t& reference) {
    ntfs_volume* volume = operation.Library();
    if (ntfs_forbidden_names(volume, Chars(link.name), Length(link.name), static_cast<BOOL>(1)))
        return STATUS_OBJECT_NAME_INVALID;
    NtfsInode parent;
    const NTSTATUS status = OpenNtfsInode(operation, link.parent, parent);
    if (!NT_SUCCESS(status)) return status;
    NtfsInode made(
        ntfs_create(parent.Get(), 0, Chars(link.name), Length(link.name), directory ? S_IFDIR : S_IFREG));
    if (!made) return operation.Failed(errno);
    ntfs_inode_update_times(parent.Get(), kModified);
    if (!parent.Close()) return operation.Failed(errno);
    reference = MK_MREF(made.Get()->mft_no, le16_to_cpu(made.Get()->mrec->sequence_number));
    SetNtfsAttributes(made, attributes);
    return made.Close() ? STATUS_SUCCESS : operation.Failed(errno);
}

NTSTATUS RemoveNtfsEntry(const NtfsOperation& operation, const NtfsLink& link, std::uint64_t reference) {
    NtfsInode parent, inode;
    NTSTATUS status = OpenNtfsInode(operation, link.parent, parent);
    if (NT_SUCCESS(status)) status = OpenNtfsInode(operation, reference, inode);
    if (!NT_SUCCESS(status)) return status;
    // Closes both, also when it fails.
    const int result = ntfs_delete(operation.Library(), nullptr, inode.Release(), parent.Release(),
                                   Chars(link.name), Length(link.name));
    return result == 0 ? STATUS_SUCCESS : operation.Failed(errno);
}

NTSTATUS AddNtfsLink(const NtfsOperation& operation, const NtfsLink& link, std::uint64_t reference) {
    if (ntfs_forbidden_names(operation.Library(), Chars(link.name), Length(link.name), static_cast<BOOL>(1)))
        return STATUS_OBJECT_NAME_INVALID;
    NtfsInode parent, inode;
    NTSTATUS status = OpenNtfsInode(operation, link.parent, parent);
    if (NT_SUCCESS(status)) status = OpenNtfsInode(operation, reference, inode);
    if (!NT_SUCCESS(status)) return status;
    if (ntfs_link(inode.Get(), parent.Get(), Chars(link.name), Length(link.name)) != 0)
        return operation.Failed(errno);
    ntfs_inode_update_times(parent.Get(), kModified);
    return parent.Close() && inode.Close() ? STATUS_SUCCESS : operation.Failed(errno);
}

void SetNtfsAttributes(const NtfsInode& inode, ULONG attributes) {
    ntfs_inode* raw = inode.Get();
    const u32 kept = le32_to_cpu(raw->flags) & ~kSettable;
    raw->flags = static_cast<FILE_ATTR_FLAGS>(cpu_to_le32(kept | (attributes & kSettable) | kArchiveAttribute));
    NInoFileNameSetDirty(raw);
    NInoSetDirty(raw);
}

NTSTATUS RefreshNtfsEntry(const NtfsOperation& operation, std::uint64_t reference) {
    NtfsInode inode;
    const NTSTATUS status = OpenNtfsInode(operation, reference, inode);
    if (!NT_SUCCESS(status)) return status;
    ntfs_inode_update_times(inode.Get(), kModified);
    NInoFileNameSetDirty(inode.Get());
    NInoSetDirty(inode.Get());
    return inode.Close() ? STATUS_SUCCESS : operation.Failed(errno);
}

}  // namespace machine
