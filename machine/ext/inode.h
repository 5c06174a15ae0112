// One inode in memory, for the length of an format.
#pragma once
#include <cstdint>
#include "machine/ext/format.h"
#include "machine/ext/library.h"

namespace machine {

class ExtInode {
public:
    // A new one, not stored yet.
    explicit ExtInode(const FileId& id) : number_(static_cast<std::uint32_t>(id.number)) {}
    // STATUS_FILE_CORRUPT_ERROR for an inode in no use.
    [[nodiscard]] NTSTATUS Load(ExtFormat& format);
    [[nodiscard]] NTSTATUS Store(ExtFormat& format);

    ext2_inode* operator->() { return &inode_; }
    ext2_inode* Get() { return &inode_; }
    std::uint32_t Number() const { return number_; }

    std::uint64_t Size() const { return EXT2_I_SIZE(&inode_); }
    bool IsDirectory() const { return LINUX_S_ISDIR(inode_.i_mode) != 0; }
    // A regular file whose data lie in blocks, plain.
    bool IsPlainFile() const;
    // Data and status changed now.
    void Touch();
    // What FILE_ATTRIBUTE_SYSTEM stands for: root's alone, and immutable.
    void SetAttributes(ULONG attributes);
    // Gives back all of its blocks; its size is 0 then.
    [[nodiscard]] NTSTATUS Empty(ExtFormat& format);

private:
    const std::uint32_t number_;
    ext2_inode inode_{};
};

}  // namespace machine
