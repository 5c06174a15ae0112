#include "machine/ntfs/device.h"
#include <algorithm>
#include <fcntl.h>
#include <unistd.h>
#include "machine/ntfs/library.h"

namespace machine {

using namespace ntfs_library;

namespace {

NtfsDevice& DeviceOf(ntfs_device* device) {
    return *static_cast<NtfsDevice*>(device->d_private);
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

s64 Seek(ntfs_device* device, s64 offset, int whence) {
    return DeviceOf(device).Seek(offset, whence);
}

s64 ReadAt(ntfs_device* device, void* buffer, s64 count, s64 offset) {
    return DeviceOf(device).Read(buffer, count, offset);
}

s64 WriteAt(ntfs_device* device, const void* buffer, s64 count, s64 offset) {
    if (NDevReadOnly(device)) {
        errno = EROFS;
        return -1;
    }
    return DeviceOf(device).Write(buffer, count, offset);
}

s64 Read(ntfs_device* device, void* buffer, s64 count) {
    NtfsDevice& self = DeviceOf(device);
    const s64 done = ReadAt(device, buffer, count, self.Position());
    if (done > 0) self.Advance(done);
    return done;
}

s64 Write(ntfs_device* device, const void* buffer, s64 count) {
    NtfsDevice& self = DeviceOf(device);
    const s64 done = WriteAt(device, buffer, count, self.Position());
    if (done > 0) self.Advance(done);
    return done;
}

// Nothing is held back here: the cache is written by Commit(), and a flush of the stack is asked for by name.
int Sync(ntfs_device*) {
    return 0;
}

int Stat(ntfs_device*, ntfs_library::stat*) {
    errno = ENOTSUP;
    return -1;
}

int Ioctl(ntfs_device*, unsigned long, void*) {
    errno = ENOTTY;
    return -1;
}

ntfs_device_operations gOperations = {Open, Close, Seek, Read, Write, ReadAt, WriteAt, Sync, Stat, Ioctl};

}  // namespace

ntfs_device* NtfsDevice::Allocate() {
    return ntfs_device_alloc("volume", 0, &gOperations, this);
}

void NtfsDevice::Free(ntfs_device* device) {
    ntfs_device_free(device);
}

std::int64_t NtfsDevice::Read(void* buffer, std::int64_t count, std::int64_t offset) {
    if (count < 0 || offset < 0) {
        errno = EINVAL;
        return -1;
    }
    const auto size = static_cast<std::int64_t>(io_.Size());
    if (offset >= size) return 0;
    count = std::min(count, size - offset);
    const auto from = static_cast<std::uint64_t>(offset);
    if (NT_SUCCESS(cache_.Read(from, buffer, static_cast<std::size_t>(count)))) return count;
    errno = EIO;
    return -1;
}

std::int64_t NtfsDevice::Write(const void* buffer, std::int64_t count, std::int64_t offset) {
    const auto size = static_cast<std::int64_t>(io_.Size());
    if (count < 0 || offset < 0 || offset > size || count > size - offset) {
        errno = EINVAL;
        return -1;
    }
    const auto to = static_cast<std::uint64_t>(offset);
    if (NT_SUCCESS(cache_.Write(to, buffer, static_cast<std::size_t>(count)))) return count;
    errno = EIO;
    return -1;
}

std::int64_t NtfsDevice::Seek(std::int64_t offset, int whence) {
    const auto size = static_cast<std::int64_t>(io_.Size());
    std::int64_t base = 0;
    if (whence == SEEK_CUR) base = position_;
    if (whence == SEEK_END) base = size;
    if (offset < -base || offset > size - base) {
        errno = EINVAL;
        return -1;
    }
    return position_ = base + offset;
}

}  // namespace machine
