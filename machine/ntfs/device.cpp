#include "machine/ntfs/device.h"
#include <algorithm>
#include <fcntl.h>
#include <unistd.h>
#include "machine/ntfs/library.h"
#include "platform/host/check/host_memory.h"

namespace machine {

using namespace ntfs_library;

namespace {

MetadataCache& CacheOf(ntfs_device* device) {
    return *static_cast<MetadataCache*>(device->d_private);
}

s64 Refuse(int error) {
    errno = error;
    return -1;
}

int ErrnoOf(NTSTATUS status) {
    return status == STATUS_INSUFFICIENT_RESOURCES ? ENOMEM : EIO;
}

int Open(ntfs_device* device, int flags) {
    NDevSetOpen(device);
    if ((flags & O_ACCMODE) == O_RDONLY) NDevSetReadOnly(device);
    return 0;
}

int Close(ntfs_device* device) {
    NDevClearOpen(device);
    return 0;
}

// The library seeks to learn whether a place exists; it never transfers from there.
s64 Seek(ntfs_device* device, s64 offset, int whence) {
    const auto size = static_cast<s64>(CacheOf(device).Size());
    if (whence == SEEK_END) offset += size;
    return offset >= 0 && offset <= size ? offset : Refuse(EINVAL);
}

s64 Read(ntfs_device*, void*, s64) {
    return Refuse(ENOTSUP);
}

s64 Write(ntfs_device*, const void*, s64) {
    return Refuse(ENOTSUP);
}

s64 ReadAt(ntfs_device* device, void* buffer, s64 count, s64 offset) {
    MetadataCache& cache = CacheOf(device);
    const auto size = static_cast<s64>(cache.Size());
    if (count < 0 || offset < 0) return Refuse(EINVAL);
    if (offset >= size) return 0;
    count = std::min(count, size - offset);
    const NTSTATUS status = host::WithinMemory([&] {
        return cache.Read(static_cast<std::uint64_t>(offset), buffer, static_cast<std::size_t>(count));
    });
    return NT_SUCCESS(status) ? count : Refuse(ErrnoOf(status));
}

s64 WriteAt(ntfs_device* device, const void* buffer, s64 count, s64 offset) {
    MetadataCache& cache = CacheOf(device);
    if (NDevReadOnly(device)) return Refuse(EROFS);
    const auto at = static_cast<std::uint64_t>(offset);
    const auto length = static_cast<std::uint64_t>(count);
    if (count < 0 || offset < 0 || !cache.Contains(at, length)) return Refuse(EINVAL);
    const NTSTATUS status = host::WithinMemory([&] { return cache.Write(at, buffer, length); });
    return NT_SUCCESS(status) ? count : Refuse(ErrnoOf(status));
}

// Nothing is held back here: the cache is written by Commit(), and a flush of the stack is asked for by name.
int Sync(ntfs_device*) {
    return 0;
}

int Stat(ntfs_device*, ntfs_library::stat*) {
    return static_cast<int>(Refuse(ENOTSUP));
}

int Ioctl(ntfs_device*, unsigned long, void*) {
    return static_cast<int>(Refuse(ENOTTY));
}

ntfs_device_operations gOperations = {Open, Close, Seek, Read, Write, ReadAt, WriteAt, Sync, Stat, Ioctl};

}  // namespace

ntfs_device* AllocateNtfsDevice(MetadataCache& cache) {
    return ntfs_device_alloc("volume", 0, &gOperations, &cache);
}

}  // namespace machine
