// Tells which of a file system's own structures a place on its volume belongs to, and whose file object
// requests for it carry. Filters ration and recognise metadata by these names.
#pragma once
#include <cstddef>
#include <cstdint>
#include "platform/kernel.h"

namespace machine {

enum class MetadataKind {
    State,  // says whether the volume is whole; written before everything else
    ClusterBitmap,
    RecordBitmap,
    Other,
    Record,
    RecordMirror,
    Directory,
};

// Not synchronised: the volume's lock guards it.
class MetadataNames {
public:
    virtual ~MetadataNames() = default;
    // Until EndOperation() requests of kind Other are those of `other`. Outside of operations they are a file
    // system's that is still being mounted.
    void BeginOperation(PFILE_OBJECT other) { other_ = other; }
    virtual void EndOperation() { other_ = nullptr; }
    // What owns the kind Other while directories change, and while a file's metadata outside its record does.
    virtual PFILE_OBJECT Directory() = 0;
    virtual PFILE_OBJECT FileMetadata() = 0;

    // Kind of the sector at `offset` of the volume.
    virtual MetadataKind KindAt(std::uint64_t offset) const = 0;
    // Whether what is written is part of a directory, where the place alone does not say it.
    virtual bool IsDirectoryData(const void* buffer, std::size_t length) const = 0;
    virtual PFILE_OBJECT ObjectOf(MetadataKind kind) = 0;  // null: a request without a file object

protected:
    PFILE_OBJECT Other() const { return other_; }

private:
    PFILE_OBJECT other_ = nullptr;
};

}  // namespace machine
