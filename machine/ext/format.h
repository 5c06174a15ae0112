// ext2, ext3 or ext4 on one volume. While an operation commits, the superblock says that the volume is not
// clean: a machine that stops in between leaves a volume that asks for its check, which finds at worst space
// that nobody uses. The journal is not written; it is empty whenever anything is changed here.
//
// Files are numbered by their inodes. Names are UTF-8 on the volume and told apart by case there, but not by
// the host kernel's callers: a name that is spelt otherwise is found when no name is spelt so. A file that is
// made or emptied with FILE_ATTRIBUTE_SYSTEM is root's and immutable for the guest: no program of it writes,
// renames or removes it by mistake. Opens and deletions that come here are the kernel's, and not bound by that.
#pragma once
#include <cstdint>
#include <memory>
#include <vector>
#include "machine/ext/names.h"
#include "machine/files/file_system.h"
#include "machine/files/volume_format.h"

namespace machine {

class ExtFormat final : public VolumeFormat {
public:
    explicit ExtFormat(VolumeIo& io);
    ~ExtFormat() override { Drop(); }

    [[nodiscard]] NTSTATUS Open() override;
    bool IsOpen() const override { return library_ != nullptr; }
    void Drop() override;
    [[nodiscard]] NTSTATUS BeginChange() override;
    [[nodiscard]] NTSTATUS Commit(CommitOrder order) override;

    FileId Root() const override;
    bool IsName(std::u16string_view name) const override;
    [[nodiscard]] NTSTATUS LookUp(FileLink& link, bool& exists, FileId& id) override;
    [[nodiscard]] NTSTATUS Describe(FileId& id, DirectoryEntry& entry) override;
    [[nodiscard]] NTSTATUS ReadDirectory(const FileId& id, std::vector<Name>& names) override;
    [[nodiscard]] NTSTATUS Create(const FileLink& link, bool directory, ULONG attributes, FileId& id) override;
    [[nodiscard]] NTSTATUS Remove(const FileLink& link, const FileId& id) override;
    [[nodiscard]] NTSTATUS EmptyForRemoval(const FileId& id) override;
    [[nodiscard]] NTSTATUS FreeSpace(std::uint64_t& bytes) override;
    std::string Label() const override;

    [[nodiscard]] NTSTATUS LoadShape(const FileId& id, FileShape& shape) override;
    [[nodiscard]] NTSTATUS ReadByLibrary(const FileId& id, std::uint64_t offset, void* buffer,
                                         ULONG length) override;
    [[nodiscard]] NTSTATUS Extend(const FileId& id, const FileWrite& write, FileShape& shape) override;
    // Without FILE_ATTRIBUTE_SYSTEM the file keeps the mode that its owner gave it.
    [[nodiscard]] NTSTATUS Empty(const FileId& id, ULONG attributes) override;

    // For the parts of operations: the library's view, and what its error means.
    struct_ext2_filsys* Library() const { return library_; }
    NTSTATUS Failed(long error) const;

private:
    [[nodiscard]] long OpenLibrary();
    [[nodiscard]] NTSTATUS WriteThroughUnclean(CommitOrder order);
    [[nodiscard]] NTSTATUS CreateFile(const FileLink& link, ULONG attributes, FileId& id);
    [[nodiscard]] NTSTATUS CreateDirectory(const FileLink& link);
    // The operation has changed this directory's blocks. A failure is the library's error.
    [[nodiscard]] long DirectoryChanged(std::uint32_t inode);
    [[nodiscard]] NTSTATUS ParentChanged(const FileLink& link);

    ExtNames names_;
    std::vector<char> before_;               // the descriptors when the present change began
    struct_ext2_filsys* library_ = nullptr;  // freed by Drop()
};

std::unique_ptr<VolumeFormat> MakeExtFormat(VolumeIo& io);
// ext2, ext3 and ext4 for a machine to mount its volumes with.
FileSystemFactory ExtFactory();
// Whether a volume begins as these do.
[[nodiscard]] NTSTATUS LooksLikeExt(VolumeIo& io, bool& ext);

}  // namespace machine
