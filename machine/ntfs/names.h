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
    // Whose requests those of kind Other are; null stands for a file system that is still being mounted.
    void SetOther(PFILE_OBJECT other) { other_ = other; }
    PFILE_OBJECT Directory() { return directory_.Get(); }
    PFILE_OBJECT AttributeList() { return attributeList_.Get(); }
    PFILE_OBJECT Mirror() { return mirror_.Get(); }

    // Directory indexes have no runs that are known here: KindAt reports them as Other, and IsDirectoryData
    // knows them by their contents.
    MetadataKind KindAt(std::uint64_t offset) const override;
    bool IsDirectoryData(const void* buffer, std::size_t length) const override;
    PFILE_OBJECT ObjectOf(MetadataKind kind) override;

private:
    bool Within(const ntfs_library::_ntfs_attr* attribute, std::uint64_t offset) const;

    const ntfs_library::_ntfs_volume* volume_ = nullptr;
    PFILE_OBJECT other_ = nullptr;
    NamedFileObject records_, mirror_, bitmap_, directory_, attributeList_;
};

// Sets whose requests kind Other is for the length of a scope.
class OtherScope {
public:
    OtherScope(NtfsNames& names, PFILE_OBJECT other) : names_(names) { names_.SetOther(other); }
    ~OtherScope() { names_.SetOther(nullptr); }
    OtherScope(const OtherScope&) = delete;
    OtherScope& operator=(const OtherScope&) = delete;

private:
    NtfsNames& names_;
};

}  // namespace machine
