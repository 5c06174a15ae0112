// The volume as the NTFS library's device: positioned byte accesses of any alignment, served by the operation's
// metadata cache.
#pragma once
#include "machine/files/metadata_cache.h"

namespace ntfs_library {
struct ntfs_device;
}

namespace machine {

// A device for one mount, null without memory; the cache outlives it. The library frees it when it unmounts.
// Accesses that fail set errno to EIO; the status is then the cache's Failure(). A read across the volume's end
// is short, a write across it fails.
ntfs_library::ntfs_device* AllocateNtfsDevice(MetadataCache& cache);

}  // namespace machine
