#include "machine/ntfs/names.h"
#include <cstring>
#include "machine/ntfs/library.h"

namespace machine {

using namespace ntfs_library;

NtfsNames::NtfsNames(VolumeIo& io)
    : records_(io, u"\\$Mft"),
      mirror_(io, u"\\$MftMirr"),
      bitmap_(io, u"\\$BitMap"),
      directory_(io, u"\\$Directory"),
      attributeList_(io, u"\\$AttributeList") {}

bool NtfsNames::Within(const _ntfs_attr* attribute, std::uint64_t offset) const {
    if (attribute == nullptr || attribute->rl == nullptr) return false;
    const auto cluster = static_cast<s64>(offset >> volume_->cluster_size_bits);
    for (const runlist_element* run = attribute->rl; run->length > 0; ++run)
        if (run->lcn >= 0 && cluster >= run->lcn && cluster < run->lcn + run->length) return true;
    return false;
}

MetadataKind NtfsNames::KindAt(std::uint64_t offset) const {
    if (volume_ == nullptr) return MetadataKind::Other;
    if (Within(volume_->mft_na, offset)) return MetadataKind::Record;
    if (Within(volume_->lcnbmp_na, offset)) return MetadataKind::ClusterBitmap;
    if (Within(volume_->mftbmp_na, offset)) return MetadataKind::RecordBitmap;
    if (Within(volume_->mftmirr_na, offset)) return MetadataKind::RecordMirror;
    return MetadataKind::Other;
}

bool NtfsNames::IsDirectoryData(const void* buffer, std::size_t length) const {
    return length >= 4 && std::memcmp(buffer, "INDX", 4) == 0;
}

PFILE_OBJECT NtfsNames::ObjectOf(MetadataKind kind) {
    switch (kind) {
        case MetadataKind::ClusterBitmap:
            return bitmap_.Get();
        case MetadataKind::RecordBitmap:  // a stream of the same file
        case MetadataKind::Record:
            return records_.Get();
        case MetadataKind::RecordMirror:
            return mirror_.Get();
        case MetadataKind::Directory:
            return directory_.Get();
        case MetadataKind::State:
        case MetadataKind::Other:
            break;
    }
    return Other();
}

}  // namespace machine
