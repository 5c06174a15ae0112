#include <cstring>
#include "machine/partition/partition_format.h"
#include "machine/partition/partition_table.h"

namespace machine {
namespace {

using namespace table;

constexpr Guid kBasicDataType = {0xA2, 0xA0, 0xD0, 0xEB, 0xE5, 0xB9, 0x33, 0x44,
                                 0x87, 0xC0, 0x68, 0xB6, 0xB7, 0x26, 0x99, 0xC7};
constexpr Guid kUnixDataType = {0xAF, 0x3D, 0xC6, 0x0F, 0x83, 0x84, 0x72, 0x47,
                                0x8E, 0x79, 0x3D, 0x69, 0xD8, 0x47, 0x7D, 0xE4};
constexpr std::size_t kPrimaries = 4;

std::uint8_t MbrTypeOf(const NewPartition& partition) {
    return partition.unixData ? kTypeUnixData : kTypeNtfs;
}

std::uint64_t NextNumber(std::uint64_t& state) {
    std::uint64_t x = state += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

Guid NewGuid(std::uint64_t& state) {
    Guid guid;
    Put<std::uint64_t>(&guid[0], NextNumber(state));
    Put<std::uint64_t>(&guid[8], NextNumber(state));
    guid[7] = static_cast<std::uint8_t>((guid[7] & 0x0F) | 0x40);  // a random GUID's version and variant
    guid[8] = static_cast<std::uint8_t>((guid[8] & 0x3F) | 0x80);
    return guid;
}

void PutMbrEntry(std::uint8_t* sector, std::size_t index, std::uint8_t type, std::uint64_t start,
                 std::uint64_t count) {
    std::uint8_t* entry = sector + kMbrEntries + index * kMbrEntrySize;
    // The cylinder fields say "beyond their range"; everything of interest reads the sector numbers.
    std::memcpy(entry + 1, "\xFE\xFF\xFF", 3);
    std::memcpy(entry + 5, "\xFE\xFF\xFF", 3);
    entry[kMbrEntryType] = type;
    Put<std::uint32_t>(entry + kMbrEntryStart, static_cast<std::uint32_t>(start));
    Put<std::uint32_t>(entry + kMbrEntrySectors, static_cast<std::uint32_t>(count));
}

DiskPiece BootSector(std::uint64_t offset, std::uint32_t sectorSize) {
    DiskPiece piece{offset, std::vector<std::uint8_t>(sectorSize)};
    Put<std::uint16_t>(&piece.bytes[kBootMark], kBootMarkValue);
    return piece;
}

// The chain of links for partitions[first..]; each link lies one alignment unit before its partition.
void AddLogical(std::vector<DiskPiece>& pieces, std::uint32_t sectorSize,
                const std::vector<NewPartition>& partitions, std::size_t first) {
    const auto linkOf = [&](std::size_t i) { return partitions[i].offset - kPartitionAlignment; };
    const std::uint64_t base = linkOf(first);
    const NewPartition& last = partitions.back();
    PutMbrEntry(pieces[0].bytes.data(), first, kTypeExtendedLba, base / sectorSize,
                (last.offset + last.length - base) / sectorSize);
    for (std::size_t i = first; i < partitions.size(); ++i) {
        DiskPiece link = BootSector(linkOf(i), sectorSize);
        PutMbrEntry(link.bytes.data(), 0, MbrTypeOf(partitions[i]), kPartitionAlignment / sectorSize,
                    partitions[i].length / sectorSize);
        if (i + 1 < partitions.size()) {
            const NewPartition& next = partitions[i + 1];
            PutMbrEntry(link.bytes.data(), 1, kTypeExtended, (linkOf(i + 1) - base) / sectorSize,
                        (kPartitionAlignment + next.length) / sectorSize);
        }
        pieces.push_back(std::move(link));
    }
}

struct GptHeader {
    std::uint64_t mine, other, entries;
};

DiskPiece GptHeaderSector(const GptHeader& at, std::uint64_t sectors, std::uint64_t arraySectors,
                          const Guid& diskGuid, std::uint32_t entriesCrc, std::uint32_t sectorSize) {
    DiskPiece piece{at.mine * sectorSize, std::vector<std::uint8_t>(sectorSize)};
    std::uint8_t* h = piece.bytes.data();
    std::memcpy(h, kGptMagic, 8);
    Put<std::uint32_t>(h + 8, kGptRevision);
    Put<std::uint32_t>(h + 12, kGptHeaderSize);
    Put<std::uint64_t>(h + kGptMyLba, at.mine);
    Put<std::uint64_t>(h + kGptAlternateLba, at.other);
    Put<std::uint64_t>(h + kGptFirstUsable, 2 + arraySectors);
    Put<std::uint64_t>(h + kGptLastUsable, sectors - 2 - arraySectors);
    std::memcpy(h + kGptDiskGuid, diskGuid.data(), diskGuid.size());
    Put<std::uint64_t>(h + kGptEntriesLba, at.entries);
    Put<std::uint32_t>(h + kGptEntryCount, kGptDefaultEntries);
    Put<std::uint32_t>(h + kGptEntrySize, kGptDefaultEntrySize);
    Put<std::uint32_t>(h + kGptEntriesCrc, entriesCrc);
    Put<std::uint32_t>(h + kGptHeaderCrc, Crc32(h, kGptHeaderSize));
    return piece;
}

std::vector<std::uint8_t> GptEntries(std::uint32_t sectorSize, const std::vector<NewPartition>& partitions,
                                     std::uint64_t& state) {
    std::vector<std::uint8_t> entries(kGptDefaultEntries * kGptDefaultEntrySize);
    for (std::size_t i = 0; i < partitions.size() && i < kGptDefaultEntries; ++i) {
        std::uint8_t* entry = &entries[i * kGptDefaultEntrySize];
        const Guid unique = NewGuid(state);
        const Guid& type = partitions[i].unixData ? kUnixDataType : kBasicDataType;
        std::memcpy(entry, type.data(), type.size());
        std::memcpy(entry + kGptEntryUnique, unique.data(), unique.size());
        Put<std::uint64_t>(entry + kGptEntryFirst, partitions[i].offset / sectorSize);
        Put<std::uint64_t>(entry + kGptEntryLast,
                           (partitions[i].offset + partitions[i].length) / sectorSize - 1);
    }
    return entries;
}

}  // namespace

bool LayOutPartitions(std::uint64_t diskSize, const std::vector<std::uint64_t>& sizes, TableKind kind,
                      std::vector<NewPartition>& partitions, std::string& error) {
    partitions.clear();
    if (kind == TableKind::None) {
        if (sizes.size() != 1) {
            error = "a disk without a partition table holds exactly one volume";
            return false;
        }
        partitions.push_back({0, diskSize});
        return true;
    }
    const bool links = kind == TableKind::Mbr && sizes.size() > kPrimaries;
    const std::uint64_t units = diskSize / kPartitionAlignment;
    // One unit before everything, one for each link, and on GPT one at the end for the backup table.
    std::uint64_t used = 1 + (kind == TableKind::Gpt ? 1 : 0) + (links ? sizes.size() - (kPrimaries - 1) : 0);
    std::uint64_t sharers = 0;
    for (std::uint64_t size : sizes) {
        sharers += size == 0 ? 1 : 0;
        used += size / kPartitionAlignment + (size % kPartitionAlignment != 0 ? 1 : 0);
    }
    if (sizes.empty() || used + sharers > units) {
        error = "partitions of " + std::to_string(used + sharers) + " MiB do not fit on a disk of " +
                std::to_string(units) + " MiB";
        return false;
    }
    const std::uint64_t share = sharers == 0 ? 0 : (units - used) / sharers;
    std::uint64_t at = 1;
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        if (links && i >= kPrimaries - 1) ++at;
        const std::uint64_t size = sizes[i] == 0 ? share * kPartitionAlignment : sizes[i];
        partitions.push_back({at * kPartitionAlignment, size});
        at += (size + kPartitionAlignment - 1) / kPartitionAlignment;
    }
    return true;
}

std::vector<DiskPiece> MakeMbr(std::uint64_t, std::uint32_t sectorSize,
                               const std::vector<NewPartition>& partitions, std::uint64_t seed) {
    std::vector<DiskPiece> pieces{BootSector(0, sectorSize)};
    Put<std::uint32_t>(&pieces[0].bytes[kMbrSignature], static_cast<std::uint32_t>(NextNumber(seed)));
    const bool links = partitions.size() > kPrimaries;
    const std::size_t primaries = links ? kPrimaries - 1 : partitions.size();
    for (std::size_t i = 0; i < primaries; ++i) {
        PutMbrEntry(pieces[0].bytes.data(), i, MbrTypeOf(partitions[i]), partitions[i].offset / sectorSize,
                    partitions[i].length / sectorSize);
    }
    if (links) AddLogical(pieces, sectorSize, partitions, primaries);
    return pieces;
}

std::vector<DiskPiece> MakeGpt(std::uint64_t diskSize, std::uint32_t sectorSize,
                               const std::vector<NewPartition>& partitions, std::uint64_t seed) {
    const std::uint64_t sectors = diskSize / sectorSize;
    DiskPiece protective = BootSector(0, sectorSize);
    PutMbrEntry(protective.bytes.data(), 0, kTypeProtective, 1,
                sectors - 1 > 0xFFFFFFFF ? 0xFFFFFFFF : sectors - 1);
    const Guid diskGuid = NewGuid(seed);
    std::vector<std::uint8_t> entries = GptEntries(sectorSize, partitions, seed);
    const std::uint32_t crc = Crc32(entries.data(), entries.size());
    const std::uint64_t arraySectors = entries.size() / sectorSize;
    const std::uint64_t backup = sectors - 1 - arraySectors;
    const GptHeader first = {1, sectors - 1, 2};
    const GptHeader second = {sectors - 1, 1, backup};
    std::vector<DiskPiece> pieces;
    pieces.push_back(std::move(protective));
    pieces.push_back(GptHeaderSector(first, sectors, arraySectors, diskGuid, crc, sectorSize));
    pieces.push_back({2 * std::uint64_t{sectorSize}, entries});
    pieces.push_back({backup * sectorSize, std::move(entries)});
    pieces.push_back(GptHeaderSector(second, sectors, arraySectors, diskGuid, crc, sectorSize));
    return pieces;
}

}  // namespace machine
