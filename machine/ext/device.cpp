#include "machine/ext/device.h"
#include <algorithm>
#include <vector>
#include "machine/ext/library.h"
#include "platform/host/check/host_memory.h"

namespace machine {
namespace {

constexpr int kFirstBlockSize = 1024;  // until the library has read the superblock

// The library opens devices by name; the one that it is to find stands here meanwhile.
thread_local MetadataCache* opening = nullptr;

MetadataCache& CacheOf(io_channel channel) {
    return *static_cast<MetadataCache*>(channel->private_data);
}

std::uint64_t OffsetOf(io_channel channel, std::uint64_t block) {
    return block * static_cast<std::uint64_t>(channel->block_size);
}

// A negative count is one of bytes.
std::uint64_t LengthOf(io_channel channel, int count) {
    return count < 0 ? static_cast<std::uint64_t>(-static_cast<std::int64_t>(count))
                     : static_cast<std::uint64_t>(count) * static_cast<std::uint64_t>(channel->block_size);
}

extern struct_io_manager kManager;

errcode_t OpenChannel(const char*, int, io_channel* channel) {
    void* memory = nullptr;
    const errcode_t error = ext2fs_get_memzero(sizeof(struct_io_channel), &memory);
    if (error != 0) return error;
    auto* made = static_cast<io_channel>(memory);
    made->magic = EXT2_ET_MAGIC_IO_CHANNEL;
    made->manager = &kManager;
    made->block_size = kFirstBlockSize;
    made->refcount = 1;
    made->private_data = opening;
    *channel = made;
    return 0;
}

errcode_t CloseChannel(io_channel channel) {
    if (--channel->refcount == 0) ext2fs_free_mem(&channel);
    return 0;
}

errcode_t SetBlockSize(io_channel channel, int size) {
    channel->block_size = size;
    return 0;
}

errcode_t ErrorOf(NTSTATUS status, errcode_t otherwise) {
    return status == STATUS_INSUFFICIENT_RESOURCES ? EXT2_ET_NO_MEMORY : otherwise;
}

errcode_t Read(io_channel channel, std::uint64_t offset, void* buffer, std::uint64_t length) {
    MetadataCache& cache = CacheOf(channel);
    if (!cache.Contains(offset, length)) return EXT2_ET_SHORT_READ;
    const NTSTATUS status = host::WithinMemory([&] { return cache.Read(offset, buffer, length); });
    return NT_SUCCESS(status) ? 0 : ErrorOf(status, EXT2_ET_SHORT_READ);
}

// What is there is read first: the library writes whole tables back for one changed entry, and bytes that are
// there already are no change to the cache.
errcode_t Write(io_channel channel, std::uint64_t offset, const void* buffer, std::uint64_t length) {
    const NTSTATUS status = host::WithinMemory([&] {
        std::vector<std::uint8_t> old(length);
        if (Read(channel, offset, old.data(), length) != 0) return STATUS_IO_DEVICE_ERROR;
        return CacheOf(channel).Write(offset, buffer, length);
    });
    return NT_SUCCESS(status) ? 0 : ErrorOf(status, EXT2_ET_SHORT_WRITE);
}

errcode_t ReadBlocks(io_channel channel, unsigned long long block, int count, void* data) {
    return Read(channel, OffsetOf(channel, block), data, LengthOf(channel, count));
}

errcode_t ReadBlocks32(io_channel channel, unsigned long block, int count, void* data) {
    return ReadBlocks(channel, block, count, data);
}

errcode_t WriteBlocks(io_channel channel, unsigned long long block, int count, const void* data) {
    return Write(channel, OffsetOf(channel, block), data, LengthOf(channel, count));
}

errcode_t WriteBlocks32(io_channel channel, unsigned long block, int count, const void* data) {
    return WriteBlocks(channel, block, count, data);
}

errcode_t WriteBytes(io_channel channel, unsigned long offset, int count, const void* data) {
    return Write(channel, offset, data, static_cast<std::uint64_t>(count));
}

errcode_t ZeroBlocks(io_channel channel, unsigned long long block, unsigned long long count) {
    static const std::uint8_t kZeros[1 << 16]{};
    const std::uint64_t end = OffsetOf(channel, block + count);
    for (std::uint64_t at = OffsetOf(channel, block); at < end; at += sizeof kZeros) {
        const errcode_t error = Write(channel, at, kZeros, std::min<std::uint64_t>(end - at, sizeof kZeros));
        if (error != 0) return error;
    }
    return 0;
}

// Requests reach the volume when the operation commits; there is nothing to bring forward.
errcode_t FlushChannel(io_channel) {
    return 0;
}

struct_io_manager MakeManager() {
    struct_io_manager manager{};
    manager.magic = EXT2_ET_MAGIC_IO_MANAGER;
    manager.name = "volume";
    manager.open = OpenChannel;
    manager.close = CloseChannel;
    manager.set_blksize = SetBlockSize;
    manager.read_blk = ReadBlocks32;
    manager.write_blk = WriteBlocks32;
    manager.flush = FlushChannel;
    manager.write_byte = WriteBytes;
    manager.read_blk64 = ReadBlocks;
    manager.write_blk64 = WriteBlocks;
    manager.zeroout = ZeroBlocks;
    return manager;
}

struct_io_manager kManager = MakeManager();

}  // namespace

long OpenExtLibrary(MetadataCache& cache, int flags, struct_ext2_filsys*& opened) {
    opening = &cache;
    const errcode_t error = ext2fs_open2("volume", nullptr, flags, 0, 0, &kManager, &opened);
    opening = nullptr;
    if (error != 0) opened = nullptr;
    return error;
}

}  // namespace machine
