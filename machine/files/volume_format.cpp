#include "machine/files/volume_format.h"
#include <algorithm>

namespace machine {

NTSTATUS VolumeFormat::Failure(std::span<const LibraryError> known, long error, NTSTATUS unknown) const {
    if (!NT_SUCCESS(cache_.Failure())) return cache_.Failure();
    const auto found =
        std::find_if(known.begin(), known.end(), [&](const LibraryError& item) { return item.error == error; });
    return found != known.end() ? found->status : unknown;
}

}  // namespace machine
