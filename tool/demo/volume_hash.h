// A digest of a volume's sectors, read from the disk image and not through the driver.
#pragma once
#include <string>
#include "inspect/sha256.h"
#include "inspect/volume_view.h"

namespace tool {

using inspect::Digest;
using inspect::Extent;

struct VolumeHash {
    Digest digest{};
    std::uint64_t covered = 0;  // bytes of the volume that the digest speaks for
    bool operator==(const VolumeHash& other) const = default;
};

// SHA-256 over the volume of `length` bytes at `offset` of `image` without the bytes of `excluded` (in any
// order, overlaps allowed). A hole counts as zeros, so sparse and filled images of the same content agree;
// holes cost nothing. Throws Error when the image cannot be read.
VolumeHash HashVolume(const std::string& image, std::uint64_t offset, std::uint64_t length,
                      const std::vector<Extent>& excluded);

// The first 12 digits.
std::string Short(const Digest& digest);

}  // namespace tool
