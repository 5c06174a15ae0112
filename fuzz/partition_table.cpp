// Partition tables of a disk that someone else wrote: bytes as they come, and sound tables with some bytes
// changed, with the checksums made right again so that what they guard is reached.
#include "fuzz/support.h"
#include <algorithm>
#include <map>
#include "machine/partition/partition_format.h"
#include "machine/partition/partition_table.h"

namespace {

using namespace machine;

// A disk whose sectors are zero but for those that the input gives.
class SparseDisk {
public:
    SparseDisk(std::uint64_t size, std::uint32_t sector) : size_(size), sector_(sector) {}

    std::uint64_t Size() const { return size_; }
    std::uint32_t SectorSize() const { return sector_; }
    std::uint64_t Sectors() const { return size_ / sector_; }

    std::uint8_t* At(std::uint64_t offset) {
        std::vector<std::uint8_t>& sector = sectors_[offset / sector_];
        sector.resize(sector_);
        return &sector[offset % sector_];
    }
    void Put(std::uint64_t offset, const std::vector<std::uint8_t>& bytes) {
        for (std::size_t i = 0; i < bytes.size() && offset + i < size_;) {
            const std::size_t part = std::min<std::size_t>(bytes.size() - i, sector_ - (offset + i) % sector_);
            std::memcpy(At(offset + i), &bytes[i], part);
            i += part;
        }
    }
    // Of `bytes` bytes at `offset`, the begin of a sector.
    std::uint32_t Checksum(std::uint64_t offset, std::uint64_t bytes) {
        std::vector<std::uint8_t> image(bytes);
        for (std::uint64_t done = 0; done < bytes; done += sector_)
            std::memcpy(&image[done], At(offset + done), std::min<std::uint64_t>(sector_, bytes - done));
        return Crc32(image.data(), image.size());
    }
    // Holds the caller to what a reader promises.
    bool Read(std::uint64_t offset, void* buffer, std::uint32_t length) {
        fuzz::Require(offset % sector_ == 0 && length % sector_ == 0 && length != 0, "whole sectors are read");
        fuzz::Require(offset < size_ && length <= size_ - offset, "only the disk is read");
        fuzz::Require(++reads_ < 4096, "the work is bounded");
        for (std::uint32_t done = 0; done < length; done += sector_) {
            const auto found = sectors_.find((offset + done) / sector_);
            auto* to = static_cast<std::uint8_t*>(buffer) + done;
            if (found == sectors_.end())
                std::memset(to, 0, sector_);
            else
                std::memcpy(to, found->second.data(), sector_);
        }
        return (offset / sector_) % 997 != 996;  // a few sectors are bad
    }

private:
    std::uint64_t size_;
    std::uint32_t sector_;
    std::map<std::uint64_t, std::vector<std::uint8_t>> sectors_;
    unsigned reads_ = 0;
};

void WriteSoundTable(SparseDisk& disk, FuzzedDataProvider& input) {
    const TableKind kind = input.ConsumeBool() ? TableKind::Gpt : TableKind::Mbr;
    const std::vector<std::uint64_t> sizes(input.ConsumeIntegralInRange<std::size_t>(1, 7), 1024 * 1024);
    std::vector<NewPartition> partitions;
    std::string error;
    if (!LayOutPartitions(disk.Size(), sizes, kind, partitions, error)) return;
    const auto pieces = kind == TableKind::Gpt ? MakeGpt(disk.Size(), disk.SectorSize(), partitions, 1)
                                               : MakeMbr(disk.Size(), disk.SectorSize(), partitions, 1);
    for (const DiskPiece& piece : pieces) disk.Put(piece.offset, piece.bytes);
}

// Makes the checksums of the header at `lba` fit what stands there, as far as there is a header.
void Seal(SparseDisk& disk, std::uint64_t lba) {
    using namespace machine::table;
    std::uint8_t* header = disk.At(lba * disk.SectorSize());
    const std::uint64_t entries = Get64(header + kGptEntriesLba);
    const std::uint64_t bytes = std::uint64_t{Get32(header + kGptEntrySize)} * Get32(header + kGptEntryCount);
    if (bytes <= 32 * 1024 && entries < disk.Sectors() && bytes <= disk.Size() - entries * disk.SectorSize())
        Put<std::uint32_t>(header + kGptEntriesCrc, disk.Checksum(entries * disk.SectorSize(), bytes));
    const std::uint32_t size = Get32(header + 12);
    if (size > disk.SectorSize()) return;
    Put<std::uint32_t>(header + kGptHeaderCrc, 0);
    Put<std::uint32_t>(header + kGptHeaderCrc, Crc32(header, size));
}

// Changes bytes near the table: in the first sectors, or counted from the end.
void Patch(SparseDisk& disk, FuzzedDataProvider& input) {
    const std::uint64_t near = std::min<std::uint64_t>(disk.Size(), 40 * disk.SectorSize());
    for (int i = input.ConsumeIntegralInRange(0, 16); i > 0; --i) {
        const std::uint64_t at = input.ConsumeIntegralInRange<std::uint64_t>(0, near - 1);
        const std::uint64_t offset = input.ConsumeBool() ? at : disk.Size() - 1 - at;
        disk.Put(offset, input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegralInRange<std::size_t>(1, 8)));
    }
}

void CheckTable(const PartitionTable& table, const SparseDisk& disk) {
    fuzz::Require(table.partitions.size() <= 2048 && table.problems.size() <= 4096, "the table is bounded");
    std::vector<Partition> sorted = table.partitions;
    std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.offset < b.offset; });
    std::uint64_t end = 0;
    for (const Partition& partition : sorted) {
        fuzz::Require(partition.length != 0 && partition.offset % disk.SectorSize() == 0 &&
                          partition.length % disk.SectorSize() == 0,
                      "a partition is whole sectors");
        fuzz::Require(partition.offset >= end, "partitions lie apart");
        fuzz::Require(partition.offset <= disk.Size() && partition.length <= disk.Size() - partition.offset,
                      "a partition lies on its disk");
        end = partition.offset + partition.length;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const std::uint32_t sector = input.ConsumeBool() ? 4096 : 512;
    const std::uint64_t sectors = input.ConsumeBool()
                                      ? input.ConsumeIntegralInRange<std::uint64_t>(1, 64)
                                      : input.ConsumeIntegralInRange<std::uint64_t>(65, 1 << 20);
    SparseDisk disk(sectors * sector, sector);
    const bool sound = input.ConsumeBool();
    if (sound) {
        WriteSoundTable(disk, input);
        Patch(disk, input);
    }
    if (input.ConsumeBool() && disk.Sectors() > 2) {
        Seal(disk, 1);
        Seal(disk, disk.Sectors() - 1);
    }
    if (!sound) disk.Put(0, input.ConsumeRemainingBytes<std::uint8_t>());
    const auto read = [&](std::uint64_t offset, void* buffer, std::uint32_t length) {
        return disk.Read(offset, buffer, length);
    };
    CheckTable(ReadPartitionTable(read, disk.Size(), sector), disk);
    return 0;
}
