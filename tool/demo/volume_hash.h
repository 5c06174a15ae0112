// A digest of a volume's sectors, read from the disk image and not through the driver.
#pragma once
#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace tool {

struct Extent {
    std::uint64_t offset;  // bytes on the volume
    std::uint64_t length;  // bytes
};

using Digest = std::array<std::uint8_t, 32>;

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

Digest HashBytes(const void* data, std::size_t length);

// The first 12 digits.
std::string Short(const Digest& digest);

}  // namespace tool
