// The metadata of NTFS by the file system's own files, and the file objects that requests for them carry.
#pragma once
#include <cstdint>
#include "machine/files/metadata_names.h"
#include "machine/files/named_file_object.h"

namespace ntfs_library {
struct _ntfs_volume;
struct _ntfs_attr;
}  // namespace ntfs_library

namespace machine {

class NtfsNames final : public MetadataNames {
public:
    explicit NtfsNames(VolumeIo& io);

    // Places are told apart by the runs of `volume`'s own files; null while none is mounted.
    void SetVolume(const ntfs_library::_ntfs_volume* volume) { volume_ = volume; }
    PFILE_OBJECT Directory() override { return directory_.Get(); }
    PFILE_OBJECT FileMetadata() override { return attributeList_.Get(); }
    PFILE_OBJECT Mirror() { return mirror_.Get(); }

    // Directory indexes have no runs that are known here: KindAt reports them as Other, and IsDirectoryData
    // knows them by their contents.
    MetadataKind KindAt(std::uint64_t offset) const override;
    bool IsDirectoryData(const void* buffer, std::size_t length) const override;
    PFILE_OBJECT ObjectOf(MetadataKind kind) override;

private:
    bool Within(const ntfs_library::_ntfs_attr* attribute, std::uint64_t offset) const;

    const ntfs_library::_ntfs_volume* volume_ = nullptr;
    NamedFileObject records_, mirror_, bitmap_, directory_, attributeList_;
};

}  // namespace machine
