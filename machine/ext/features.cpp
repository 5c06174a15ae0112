#include "machine/ext/features.h"
extern "C" {  // which this header leaves to its user
#include <e2p/e2p.h>
}
#include "machine/ext/library.h"

namespace machine {
namespace {

// What the library keeps right when files are made, grown and removed. A journal is among it while it is empty.
constexpr unsigned kCompatible =
    EXT2_FEATURE_COMPAT_DIR_PREALLOC | EXT3_FEATURE_COMPAT_HAS_JOURNAL | EXT2_FEATURE_COMPAT_EXT_ATTR |
    EXT2_FEATURE_COMPAT_RESIZE_INODE | EXT2_FEATURE_COMPAT_DIR_INDEX | EXT4_FEATURE_COMPAT_SPARSE_SUPER2 |
    EXT4_FEATURE_COMPAT_FAST_COMMIT | EXT4_FEATURE_COMPAT_STABLE_INODES | EXT4_FEATURE_COMPAT_ORPHAN_FILE;
constexpr unsigned kIncompatible =
    EXT2_FEATURE_INCOMPAT_FILETYPE | EXT2_FEATURE_INCOMPAT_META_BG | EXT3_FEATURE_INCOMPAT_EXTENTS |
    EXT4_FEATURE_INCOMPAT_64BIT | EXT4_FEATURE_INCOMPAT_FLEX_BG | EXT4_FEATURE_INCOMPAT_EA_INODE |
    EXT4_FEATURE_INCOMPAT_INLINE_DATA | EXT4_FEATURE_INCOMPAT_CSUM_SEED | EXT4_FEATURE_INCOMPAT_LARGEDIR;
constexpr unsigned kReadOnlyCompatible =
    EXT2_FEATURE_RO_COMPAT_SPARSE_SUPER | EXT2_FEATURE_RO_COMPAT_LARGE_FILE | EXT4_FEATURE_RO_COMPAT_HUGE_FILE |
    EXT4_FEATURE_RO_COMPAT_GDT_CSUM | EXT4_FEATURE_RO_COMPAT_DIR_NLINK | EXT4_FEATURE_RO_COMPAT_EXTRA_ISIZE |
    EXT4_FEATURE_RO_COMPAT_METADATA_CSUM | EXT4_FEATURE_RO_COMPAT_VERITY;

// The names of the set bits.
std::string Features(int word, unsigned bits) {
    std::string names;
    for (unsigned bit = 1; bit != 0; bit <<= 1) {
        if ((bits & bit) == 0) continue;
        if (!names.empty()) names += ", ";
        names += e2p_feature2string(word, bit);
    }
    return names;
}

}  // namespace

std::string WhyNotUsable(const struct_ext2_filsys* library, const VolumeIo& io) {
    if (library->blocksize < io.SectorSize())
        return "its blocks of " + std::to_string(library->blocksize) + " bytes are smaller than a sector";
    if (ext2fs_blocks_count(library->super) > io.Size() / library->blocksize)
        return "it is larger than its volume";
    return {};
}

std::string WhyReadOnly(const struct_ext2_filsys* library) {
    ext2_super_block* super = library->super;  // the library's tests take no const
    if (ext2fs_has_feature_journal_needs_recovery(super))
        return "its journal needs recovery: mount it once in the system that it belongs to";
    if ((super->s_state & EXT2_ERROR_FS) != 0) return "it has errors: run e2fsck";
    if ((super->s_state & EXT2_VALID_FS) == 0) return "it was not unmounted cleanly: run e2fsck";
    if (super->s_last_orphan != 0 || ext2fs_has_feature_orphan_present(super))
        return "files are left to be deleted: run e2fsck";
    std::string names = Features(E2P_FEATURE_COMPAT, super->s_feature_compat & ~kCompatible);
    if (names.empty()) names = Features(E2P_FEATURE_INCOMPAT, super->s_feature_incompat & ~kIncompatible);
    if (names.empty())
        names = Features(E2P_FEATURE_RO_INCOMPAT, super->s_feature_ro_compat & ~kReadOnlyCompatible);
    return names.empty() ? std::string() : "it uses features that cannot be kept right here: " + names;
}

}  // namespace machine
