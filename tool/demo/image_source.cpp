#include "tool/demo/image_source.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include "machine/partition/formatter.h"
#include "tool/error.h"
#include "tool/demo/offline_ntfs.h"
#include "tool/demo/report.h"

namespace tool {
namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;
// Below 48 MiB of free swap space programs' writes are refused, and a merge needs 51 MiB; what the rows write
// comes on top.
constexpr std::uint64_t kLeastSwap = 128 * kMiB;
constexpr std::uint64_t kUsualSwap = 256 * kMiB;
constexpr std::uint64_t kRoomForFiles = 64 * kMiB;

// The map has room for an entry of 12 bytes for every sector, in blocks of 2048 sectors.
std::uint64_t NeededFor(std::uint64_t swapBytes) {
    const std::uint64_t map = swapBytes / 512 * 12;
    return swapBytes + (map / kMiB + 1) * kMiB + kRoomForFiles;
}

std::uint64_t SizeOf(const std::string& image) {
    struct stat info;
    if (stat(image.c_str(), &info) != 0) throw Error("cannot read " + image + ": " + std::strerror(errno));
    if (!S_ISREG(info.st_mode)) throw Error(image + " is no file");
    return static_cast<std::uint64_t>(info.st_size);
}

}  // namespace

Place FindVolume(const std::string& image) {
    const std::uint64_t size = SizeOf(image);
    Place best;
    // The size that both the table and the volume count in comes before one that only the volume allows.
    for (const std::uint32_t sector : {4096u, 512u}) {
        machine::PartitionTable table;
        std::string error;
        if (size < sector || size % sector != 0) continue;
        if (!machine::ReadImagePartitions(image, sector, table, error)) throw Error(error);
        for (const machine::Partition& partition : table.partitions) {
            if (partition.length <= best.length) continue;
            if (OfflineVolume::SectorBytes(image, partition.offset) < sector) continue;
            best = {image, partition.offset, partition.length, sector};
        }
    }
    if (best.length == 0) throw Error(image + " holds no NTFS volume");
    return best;
}

SwapPlan PlanSwap(const std::string& image, std::uint64_t freeBytes) {
    std::uint64_t swap = kUsualSwap;
    while (swap > kLeastSwap && NeededFor(swap) > freeBytes) swap -= 16 * kMiB;
    if (NeededFor(swap) > freeBytes) {
        throw Error("the NTFS volume of " + image + " has " + Bytes(freeBytes) +
                    " free, the demonstration needs " + Bytes(NeededFor(kLeastSwap)));
    }
    return {static_cast<std::int64_t>(swap), NeededFor(swap)};
}

}  // namespace tool
