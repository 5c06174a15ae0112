// The ext library's device: every block that the library reads or writes goes through the volume's metadata
// cache, and so down the volume's stack when the operation commits.
#pragma once
#include "machine/files/metadata_cache.h"

struct struct_ext2_filsys;

namespace machine {

// Opens the file system on the cache's volume; `flags` are the library's. Nothing is written. Returns the
// library's error; `opened` is freed with ext2fs_free before the cache goes.
[[nodiscard]] long OpenExtLibrary(MetadataCache& cache, int flags, struct_ext2_filsys*& opened);

}  // namespace machine
