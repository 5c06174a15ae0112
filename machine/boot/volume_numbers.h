// Which volume is \Device\HarddiskVolumeN, from one boot to the next. A partition is known by its identity
// (partition_table.h), one whose identity does not tell it from others by its disk as well; each keeps the
// number that it was first given, whatever comes, goes or cannot be read on other disks. A new partition gets a
// number that none was given before, so that nothing said about an older one is taken for it.
//
// What was given stands in the registry's key \Registry\Machine\System\MountedDevices, one value for each
// number: its name the volume's, its data the disk's index in the machine (4 bytes) and the identity.
#pragma once
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <vector>
#include "machine/boot/registry_file.h"
#include "machine/partition/partition_table.h"

namespace machine {

struct KnownVolume {
    unsigned disk;
    std::vector<std::uint8_t> identity;
    bool operator==(const KnownVolume&) const = default;
};

class VolumeNumbers {
public:
    // Reads what was given; `most` is the highest number that may be.
    VolumeNumbers(RegistryFile& registry, unsigned most);

    // The number of a partition of this boot, each asked for once. A partition whose identity stands elsewhere
    // as well (a copy of a disk beside it) is told by its disk. Nothing when all numbers are taken.
    std::optional<unsigned> Take(unsigned disk, const Partition& partition);
    // Writes down what is new. What a power cut keeps from the registry is given the same way again.
    [[nodiscard]] NTSTATUS Save();

    // Every volume that there ever was, by number.
    const std::map<unsigned, KnownVolume>& Known() const { return known_; }

private:
    std::optional<unsigned> Find(unsigned disk, const std::vector<std::uint8_t>& identity) const;

    RegistryFile& registry_;
    const unsigned most_;
    std::map<unsigned, KnownVolume> known_;
    std::set<unsigned> taken_;    // in this boot
    std::set<unsigned> changed_;  // since they were read or saved
};

}  // namespace machine
