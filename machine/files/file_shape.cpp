#include "machine/files/file_shape.h"
#include <algorithm>

namespace machine {

NTSTATUS FileShape::Fill(VolumeIo& io, const FileWrite& write) {
    NTSTATUS status = runs.WriteZeros(io, write.file, initialized, write.offset, initialized);
    const std::uint64_t valid = std::max(initialized, write.offset);
    if (NT_SUCCESS(status))
        status = runs.Write(io, write.file, write.offset, write.buffer, write.length, valid);
    if (NT_SUCCESS(status)) initialized = std::max(initialized, write.End());
    return status;
}

}  // namespace machine
