// Partition tables of a disk that someone else wrote: bytes as they come, and sound tables with some bytes
// changed, with the checksums made right again so that what they guard is reached.
#include "fuzz/support.h"
#include <algorithm>
#include "machine/partition/partition_format.h"
#include "machine/partition/partition_table.h"
#include "tests/doubles/memory_disk.h"

namespace {

using namespace machine;

using fuzz::Bytes;

// As much of the bytes as the disk has room for.
void PutBytes(MemoryDisk& disk, std::uint64_t offset, const Bytes& bytes) {
    if (offset >= disk.Size()) return;
    static_cast<void>(
        disk.Write(offset, bytes.data(), std::min<std::uint64_t>(bytes.size(), disk.Size() - offset)));
}

Bytes Get(MemoryDisk& disk, std::uint64_t offset, std::uint64_t length) {
    Bytes bytes(length);
    static_cast<void>(disk.Read(offset, bytes.data(), bytes.size()));
    return bytes;
}

// Holds the caller to what a reader promises.
bool CheckedRead(MemoryDisk& disk, unsigned& reads, std::uint64_t offset, void* buffer, std::uint32_t length) {
    const std::uint32_t sector = disk.SectorSize();
    fuzz::Require(offset % sector == 0 && length % sector == 0 && length != 0, "whole sectors are read");
    fuzz::Require(offset < disk.Size() && length <= disk.Size() - offset, "only the disk is read");
    fuzz::Require(++reads < 4096, "the work is bounded");
    static_cast<void>(disk.Read(offset, buffer, length));
    return (offset / sector) % 997 != 996;  // a few sectors are bad
}

void WriteSoundTable(MemoryDisk& disk, FuzzedDataProvider& input) {
    const TableKind kind = input.ConsumeBool() ? TableKind::Gpt : TableKind::Mbr;
    const std::vector<std::uint64_t> sizes(input.ConsumeIntegralInRange<std::size_t>(1, 7), 1024 * 1024);
    std::vector<NewPartition> partitions;
    std::string error;
    if (!LayOutPartitions(disk.Size(), sizes, kind, partitions, error)) return;
    const auto pieces = kind == TableKind::Gpt ? MakeGpt(disk.Size(), disk.SectorSize(), partitions, 1)
                                               : MakeMbr(disk.Size(), disk.SectorSize(), partitions, 1);
    for (const DiskPiece& piece : pieces) PutBytes(disk, piece.offset, piece.bytes);
}

// Makes the checksums of the header at `lba` fit what stands there, as far as there is a header.
void Seal(MemoryDisk& disk, std::uint64_t lba) {
    using namespace machine::table;
    const std::uint32_t sector = disk.SectorSize();
    Bytes header = Get(disk, lba * sector, sector);
    const std::uint64_t entries = Get64(&header[kGptEntriesLba]);
    const std::uint64_t bytes = std::uint64_t{Get32(&header[kGptEntrySize])} * Get32(&header[kGptEntryCount]);
    if (bytes <= 32 * 1024 && entries < disk.Size() / sector && bytes <= disk.Size() - entries * sector)
        Put<std::uint32_t>(&header[kGptEntriesCrc], Crc32(Get(disk, entries * sector, bytes).data(), bytes));
    const std::uint32_t size = Get32(&header[12]);
    if (size <= sector) {
        Put<std::uint32_t>(&header[kGptHeaderCrc], 0);
        Put<std::uint32_t>(&header[kGptHeaderCrc], Crc32(header.data(), size));
    }
    PutBytes(disk, lba * sector, header);
}

// Changes bytes where the tables' fields lie: entries of the first sector and of a chain's links, headers and
// entries behind it, the same at the disk's end.
void Patch(MemoryDisk& disk, FuzzedDataProvider& input) {
    const std::uint64_t sector = disk.SectorSize();
    const std::uint64_t entries = table::kMbrEntries;
    const std::uint64_t places[] = {entries,
                                    entries + kPartitionAlignment * input.ConsumeIntegralInRange(3, 7),
                                    sector,
                                    2 * sector,
                                    disk.Size() - sector,
                                    disk.Size() - std::min(disk.Size(), 33 * sector)};
    for (int i = input.ConsumeIntegralInRange(0, 16); i > 0; --i) {
        const std::uint64_t offset =
            input.PickValueInArray(places) + input.ConsumeIntegralInRange<std::uint64_t>(0, 191);
        // The field of the next entry, of an MBR's or a GPT's: two partitions in one place.
        const std::uint64_t next = offset + input.PickValueInArray<std::uint64_t>({16, 128});
        const bool copy = input.ConsumeBool() && next + 16 <= disk.Size();
        PutBytes(disk, offset,
                 copy ? Get(disk, next, 16)
                      : input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegralInRange<std::size_t>(1, 8)));
    }
}

void CheckTable(const PartitionTable& table, const MemoryDisk& disk) {
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
    MemoryDisk disk(sectors * sector, sector);
    const bool sound = input.ConsumeBool();
    if (sound) {
        WriteSoundTable(disk, input);
        Patch(disk, input);
    }
    if (input.ConsumeBool() && sectors > 2) {
        Seal(disk, 1);
        Seal(disk, sectors - 1);
    }
    if (!sound) PutBytes(disk, 0, input.ConsumeRemainingBytes<std::uint8_t>());
    unsigned reads = 0;
    const auto read = [&](std::uint64_t offset, void* buffer, std::uint32_t length) {
        return CheckedRead(disk, reads, offset, buffer, length);
    };
    CheckTable(ReadPartitionTable(read, disk.Size(), sector), disk);
    return 0;
}
