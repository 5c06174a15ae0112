// The ext library's device: every block that the library reads or writes goes through the volume's metadata
// cache, and so down the volume's stack when the operation commits.
#pragma once
#include <cstdint>
#include "machine/files/metadata_cache.h"
#include "machine/files/volume_io.h"

struct struct_ext2_filsys;

namespace machine {

class ExtDevice {
public:
    ExtDevice(VolumeIo& io, MetadataCache& cache) : io_(io), cache_(cache) {}
    ExtDevice(const ExtDevice&) = delete;
    ExtDevice& operator=(const ExtDevice&) = delete;

    // Opens the file system on the volume; `flags` are the library's. Nothing is written. Returns the library's
    // error; `opened` is freed with ext2fs_free before this object goes.
    [[nodiscard]] long Open(int flags, struct_ext2_filsys*& opened);

    // For the library's callbacks; any range, errors in the library's terms.
    long Read(std::uint64_t offset, void* buffer, std::uint64_t length);
    long Write(std::uint64_t offset, const void* buffer, std::uint64_t length);
    long Zero(std::uint64_t offset, std::uint64_t length);

private:
    bool Within(std::uint64_t offset, std::uint64_t length) const {
        return offset <= io_.Size() && length <= io_.Size() - offset;
    }

    VolumeIo& io_;
    MetadataCache& cache_;
};

}  // namespace machine
