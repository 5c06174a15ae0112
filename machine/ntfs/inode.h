// Owners of the NTFS library's objects. None outlives the operation that opened it: the library keeps one
// record twice when it is opened twice, so nothing is left open between operations.
#pragma once
#include <utility>
#include "machine/ntfs/library.h"
#include "platform/kernel.h"

namespace machine {

class NtfsInode {
public:
    NtfsInode() = default;
    explicit NtfsInode(ntfs_library::ntfs_inode* inode) : inode_(inode) {}
    NtfsInode(NtfsInode&& other) noexcept : inode_(std::exchange(other.inode_, nullptr)) {}
    NtfsInode& operator=(NtfsInode&& other) noexcept {
        Drop();
        inode_ = std::exchange(other.inode_, nullptr);
        return *this;
    }
    ~NtfsInode() { Drop(); }

    ntfs_library::ntfs_inode* Get() const { return inode_; }
    explicit operator bool() const { return inode_ != nullptr; }
    ntfs_library::ntfs_inode* Release() { return std::exchange(inode_, nullptr); }

    bool IsDirectory() const {
        using namespace ntfs_library;
        return (inode_->mrec->flags & MFT_RECORD_IS_DIRECTORY) != 0;
    }

    // Sets the attributes that a caller may choose; for an inode that is about to be closed.
    void SetAttributes(ULONG attributes);

    // Stores what was changed and closes. On false (errno says why) the inode is closed too, its changes lost.
    [[nodiscard]] bool Close() {
        if (inode_ == nullptr || ntfs_library::ntfs_inode_close(inode_) == 0) {
            inode_ = nullptr;
            return true;
        }
        const int error = errno;
        Drop();
        errno = error;
        return false;
    }

    // Closes and forgets what was changed. The library does not close an inode that it cannot store.
    void Drop() {
        using namespace ntfs_library;
        if (inode_ == nullptr) return;
        NInoClearDirty(inode_);
        NInoAttrListClearDirty(inode_);
        for (s32 i = 0; i < inode_->nr_extents; ++i) NInoClearDirty(inode_->extent_nis[i]);
        ntfs_inode_close(inode_);
        inode_ = nullptr;
    }

private:
    ntfs_library::ntfs_inode* inode_ = nullptr;
};

class NtfsAttribute {
public:
    explicit NtfsAttribute(ntfs_library::ntfs_attr* attribute) : attribute_(attribute) {}
    NtfsAttribute(NtfsAttribute&& other) noexcept : attribute_(std::exchange(other.attribute_, nullptr)) {}
    ~NtfsAttribute() {
        if (attribute_ != nullptr) ntfs_library::ntfs_attr_close(attribute_);
    }
    NtfsAttribute& operator=(const NtfsAttribute&) = delete;

    // The unnamed data of a file; null with errno on a failure.
    static NtfsAttribute OpenData(const NtfsInode& inode) {
        using namespace ntfs_library;
        return NtfsAttribute(ntfs_attr_open(inode.Get(), AT_DATA, AT_UNNAMED, 0));
    }

    ntfs_library::ntfs_attr* Get() const { return attribute_; }
    ntfs_library::ntfs_attr* operator->() const { return attribute_; }
    explicit operator bool() const { return attribute_ != nullptr; }

private:
    ntfs_library::ntfs_attr* attribute_;
};

}  // namespace machine
