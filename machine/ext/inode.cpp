#include "machine/ext/inode.h"
#include <ctime>

namespace machine {
namespace {

constexpr unsigned kNotPlain = EXT2_COMPR_FL | EXT4_ENCRYPT_FL | EXT4_INLINE_DATA_FL | EXT4_VERITY_FL |
                               EXT4_EA_INODE_FL | EXT4_SNAPFILE_FL;
constexpr __u16 kPermissions = 07777;

}  // namespace

NTSTATUS ExtInode::Load(ExtFormat& format) {
    const long error = ext2fs_read_inode(format.Library(), number_, &inode_);
    if (error != 0) return format.Failed(error);
    return inode_.i_links_count != 0 ? STATUS_SUCCESS : STATUS_FILE_CORRUPT_ERROR;
}

NTSTATUS ExtInode::Store(ExtFormat& format) {
    const long error = ext2fs_write_inode(format.Library(), number_, &inode_);
    return error == 0 ? STATUS_SUCCESS : format.Failed(error);
}

bool ExtInode::IsPlainFile() const {
    return LINUX_S_ISREG(inode_.i_mode) && (inode_.i_flags & kNotPlain) == 0;
}

void ExtInode::Touch() {
    inode_.i_mtime = inode_.i_ctime = static_cast<__u32>(std::time(nullptr));
}

void ExtInode::SetAttributes(ULONG attributes) {
    const bool system = (attributes & FILE_ATTRIBUTE_SYSTEM) != 0;
    inode_.i_mode = static_cast<__u16>((inode_.i_mode & ~kPermissions) | (system ? 0600 : 0644));
    inode_.i_flags =
        system ? inode_.i_flags | EXT2_IMMUTABLE_FL : inode_.i_flags & ~unsigned{EXT2_IMMUTABLE_FL};
}

NTSTATUS ExtInode::Empty(ExtFormat& format) {
    ext2_filsys library = format.Library();
    long error = 0;
    if (ext2fs_inode_has_valid_blocks2(library, &inode_) != 0)
        error = ext2fs_punch(library, number_, &inode_, nullptr, 0, ~0ULL);
    if (error == 0) error = ext2fs_inode_size_set(library, &inode_, 0);
    return error == 0 ? STATUS_SUCCESS : format.Failed(error);
}

}  // namespace machine
