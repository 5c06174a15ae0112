// The volume as the NTFS library's device: positioned byte accesses of any alignment, served by the operation's
// metadata cache. The library's position-less calls are the only ones it makes; the others work all the same.
#pragma once
#include <cstdint>
#include "machine/files/metadata_cache.h"

namespace ntfs_library {
struct ntfs_device;
}

namespace machine {

class NtfsDevice {
public:
    NtfsDevice(VolumeIo& io, MetadataCache& cache) : io_(io), cache_(cache) {}

    // A device for one mount, null without memory. The library frees it when it unmounts; after a mount that
    // failed, Free() does.
    ntfs_library::ntfs_device* Allocate();
    static void Free(ntfs_library::ntfs_device* device);

    // Accesses by the library: bytes done, or -1 with errno EIO (the status is the cache's Failure()). A read
    // across the volume's end is short, a write across it fails.
    std::int64_t Read(void* buffer, std::int64_t count, std::int64_t offset);
    std::int64_t Write(const void* buffer, std::int64_t count, std::int64_t offset);
    // The new position, or -1 with errno EINVAL outside the volume.
    std::int64_t Seek(std::int64_t offset, int whence);

    std::int64_t Position() const { return position_; }
    void Advance(std::int64_t count) { position_ += count; }

private:
    VolumeIo& io_;
    MetadataCache& cache_;
    std::int64_t position_ = 0;
};

}  // namespace machine
