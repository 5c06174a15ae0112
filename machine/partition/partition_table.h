// Partition tables: which parts of a disk are volumes. Reading trusts no field; it is a pure function of
// the bytes that its reader returns, and stays within fixed bounds of work and memory whatever they are.
#pragma once
#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace machine {

using Guid = std::array<std::uint8_t, 16>;  // as on the disk: the first three fields little-endian

enum class TableKind { None, Mbr, Gpt };

struct Partition {
    std::uint64_t offset;  // bytes on the disk, a multiple of the sector size
    std::uint64_t length;  // bytes, likewise, never 0
    std::uint8_t mbrType;  // 0 on a GPT disk
    Guid gptType;          // zeros on an MBR disk
    // What tells it from every other one wherever it lies: 16 bytes of unique GUID; or 12 bytes, its disk's
    // signature and its offset, which tell it on its own disk only when the signature is 0. Empty for a disk
    // without a table.
    std::vector<std::uint8_t> identity{};
};

struct PartitionTable {
    TableKind kind = TableKind::None;
    // In the order of the table, primary before logical; inside the disk and without overlaps. A disk that
    // carries no table at all, a bare file system for example, is one partition from end to end.
    std::vector<Partition> partitions;
    // What was wrong and therefore left out, one sentence each; empty for a sound table.
    std::vector<std::string> problems;
    // A sector of it could not be read and no copy took its place: there may be partitions that are not here.
    bool unread = false;
};

// Reads `length` bytes (whole sectors) at `offset` (a multiple of the sector size, inside the disk).
using SectorReader = std::function<bool(std::uint64_t offset, void* buffer, std::uint32_t length)>;

// `diskSize` is a multiple of `sectorSize`, which is 512 or 4096. A table that is damaged beyond use, or cannot
// be read, gives no partitions and says why.
PartitionTable ReadPartitionTable(const SectorReader& read, std::uint64_t diskSize, std::uint32_t sectorSize);

// ---- writing -------------------------------------------------------------------------------------------
struct DiskPiece {
    std::uint64_t offset;  // bytes
    std::vector<std::uint8_t> bytes;
};

struct NewPartition {
    std::uint64_t offset;
    std::uint64_t length;
    bool unixData = false;  // its type in the table: for ext, not for NTFS
};

inline constexpr std::uint64_t kPartitionAlignment = 1024 * 1024;

// Lays out partitions of the given sizes in whole sectors (0: an equal share of what the others leave) at
// ascending 1 MiB boundaries, leaving room for the table. False with a sentence in `error` when they do not
// fit.
bool LayOutPartitions(std::uint64_t diskSize, const std::vector<std::uint64_t>& sizes, TableKind kind,
                      std::vector<NewPartition>& partitions, std::string& error);

// The sectors that make up a new table over `partitions` (ascending, inside the disk, apart, aligned to
// kPartitionAlignment). Up to four are primary; of more the first three are, the rest logical, and each logical
// one needs the unused alignment unit before it. `seed` gives signatures and GUIDs their values.
std::vector<DiskPiece> MakeMbr(std::uint64_t diskSize, std::uint32_t sectorSize,
                               const std::vector<NewPartition>& partitions, std::uint64_t seed);
std::vector<DiskPiece> MakeGpt(std::uint64_t diskSize, std::uint32_t sectorSize,
                               const std::vector<NewPartition>& partitions, std::uint64_t seed);

std::uint32_t Crc32(const void* data, std::size_t bytes);

}  // namespace machine
