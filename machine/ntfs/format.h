// NTFS on one volume. Directories, records and the allocation of clusters are the NTFS library's; nothing of
// its stays open between operations.
//
// Files are numbered by their records; the generation is the record's sequence number.
#pragma once
#include <cstdint>
#include <memory>
#include "machine/files/file_system.h"
#include "machine/files/volume_format.h"
#include "machine/ntfs/names.h"

namespace machine {

class NtfsInode;

class NtfsFormat final : public VolumeFormat {
public:
    explicit NtfsFormat(VolumeIo& io);
    ~NtfsFormat() override { Drop(); }

    // A volume that another system left unclean is opened read-only.
    [[nodiscard]] NTSTATUS Open() override;
    bool IsOpen() const override { return volume_ != nullptr; }
    void Drop() override;
    [[nodiscard]] NTSTATUS Commit(CommitOrder order) override;

    FileId Root() const override;
    bool IsName(std::u16string_view) const override { return true; }  // looking up any name is safe
    [[nodiscard]] NTSTATUS LookUp(FileLink& link, bool& exists, FileId& id) override;
    [[nodiscard]] NTSTATUS Describe(FileId& id, DirectoryEntry& entry) override;
    [[nodiscard]] NTSTATUS ReadDirectory(const FileId& id, std::vector<Name>& names) override;
    [[nodiscard]] NTSTATUS Create(const FileLink& link, bool directory, ULONG attributes, FileId& id) override;
    [[nodiscard]] NTSTATUS Remove(const FileLink& link, const FileId& id) override;
    [[nodiscard]] NTSTATUS AddName(const FileLink& link, const FileId& id) override;
    [[nodiscard]] NTSTATUS Refresh(const FileId& id) override;
    [[nodiscard]] NTSTATUS FreeSpace(std::uint64_t& bytes) override;
    std::string Label() const override;

    [[nodiscard]] NTSTATUS LoadShape(const FileId& id, FileShape& shape) override;
    [[nodiscard]] NTSTATUS ReadByLibrary(const FileId& id, std::uint64_t offset, void* buffer,
                                         ULONG length) override;
    [[nodiscard]] NTSTATUS WriteByLibrary(const FileId& id, std::uint64_t offset, const void* buffer,
                                          ULONG length) override;
    [[nodiscard]] NTSTATUS Extend(const FileId& id, const FileWrite& write, FileShape& shape) override;
    [[nodiscard]] NTSTATUS Empty(const FileId& id, ULONG attributes) override;

private:
    // What a failing call of the library means; `error` is errno right after it.
    NTSTATUS Failed(int error) const;
    [[nodiscard]] NTSTATUS OpenOnce();
    [[nodiscard]] NTSTATUS OpenInode(const FileId& id, NtfsInode& inode) const;
    [[nodiscard]] NTSTATUS OpenDirectory(const FileId& id, NtfsInode& directory) const;
    // Both ends of a name that stands or is to stand.
    [[nodiscard]] NTSTATUS OpenBoth(const FileLink& link, const FileId& id, NtfsInode& parent,
                                    NtfsInode& inode) const;

    NtfsNames names_;
    ntfs_library::_ntfs_volume* volume_ = nullptr;
};

std::unique_ptr<VolumeFormat> MakeNtfsFormat(VolumeIo& io);
// NTFS for a machine to mount its volumes with.
FileSystemFactory NtfsFactory();

}  // namespace machine
