// New disks: a sparse image with a partition table and an NTFS or ext4 volume in each partition.
#pragma once
#include <cstdint>
#include <string>
#include <vector>
#include "formats/file_system_kind.h"
#include "machine/partition/partition_table.h"

namespace machine {

struct NewVolume {
    std::uint64_t size = 0;  // bytes in whole sectors, 0: an equal share of what the others leave
    FileSystemKind fileSystem = FileSystemKind::Ntfs;  // Ext: ext4; None: the partition stays blank
    // Bytes, a power of two from the sector size to 65536; of ext4, whose blocks these are, from 1024 to 4096.
    std::uint32_t clusterSize = 4096;
    std::string label;  // UTF-8, may be empty
};

struct NewDisk {
    std::string path;  // must not exist
    std::uint64_t size = 0;
    std::uint32_t sectorSize = 512;
    TableKind table = TableKind::Gpt;
    std::vector<NewVolume> volumes;
};

// Creates the image. On failure one sentence in `error`, and nothing is left behind.
bool CreateDisk(const NewDisk& disk, std::string& error);

// The partitions of an image, as a machine would find them. False with one sentence in `error` when the file
// cannot be read; an image without a table is one partition.
bool ReadImagePartitions(const std::string& path, std::uint32_t sectorSize, PartitionTable& table,
                         std::string& error);

}  // namespace machine
