// Serving a hosted machine's disks to network block device clients. This folder holds the machine's folder on
// the host, the server in it (requests, clients, boots, the control socket) and the nbdkit plugin around it.
// Start with server.h; this header is the smallest part: which bytes of a disk belong to which volume.
#pragma once
#include <cstdint>
#include <vector>

namespace nbd {

// A volume's place on its disk, in bytes, both multiples of the sector size.
struct VolumePlace {
    unsigned number = 0;
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
};

// A part of a request that one device stack serves.
struct Piece {
    const VolumePlace* volume;  // null: the disk's own stack
    std::uint64_t offset;       // bytes, on the disk
    std::uint64_t length;       // bytes
};

class DiskMap {
public:
    DiskMap() = default;
    // The places do not overlap; any order.
    explicit DiskMap(std::vector<VolumePlace> places);

    // The first piece of the range [offset, offset + length), length not 0, cut at `most` bytes. A volume's
    // places stay valid as long as the map.
    Piece First(std::uint64_t offset, std::uint64_t length, std::uint64_t most) const;
    // Null when no volume has the number.
    const VolumePlace* Find(unsigned number) const;

private:
    std::vector<VolumePlace> places_;  // ascending
};

}  // namespace nbd
