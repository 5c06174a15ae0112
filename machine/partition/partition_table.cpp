#include "machine/partition/partition_table.h"
#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>
#include <zlib.h>
#include "machine/partition/partition_format.h"

namespace machine {
namespace {

using namespace table;
using Sector = std::vector<std::uint8_t>;

// The type of a reserved partition, which carries no volume.
constexpr Guid kReservedType = {0x16, 0xE3, 0xC9, 0xE3, 0x5C, 0x0B, 0xB8, 0x4D,
                                0x81, 0x7D, 0xF9, 0x2D, 0xF0, 0x02, 0x15, 0xAE};
constexpr unsigned kMostLogical = 128;
constexpr std::uint64_t kMostEntryBytes = 256 * 1024;

class Reader {
public:
    Reader(const SectorReader& read, std::uint64_t diskSize, std::uint32_t sectorSize)
        : read_(read), sectorSize_(sectorSize), sectors_(diskSize / sectorSize) {}

    PartitionTable Run() {
        if (sectors_ == 0) return std::move(table_);
        Sector first(sectorSize_);
        if (!ReadAt(0, first)) {
            Problem("the first sector cannot be read");
            return std::move(table_);
        }
        if (Get16(&first[kBootMark]) != kBootMarkValue || IsFileSystem(first)) {
            AddWholeDisk();
        } else if (HasProtectiveEntry(first)) {
            ReadGpt();
        } else {
            ReadMbr(first);
        }
        return std::move(table_);
    }

private:
    bool ReadAt(std::uint64_t lba, Sector& buffer) {
        const std::uint64_t count = buffer.size() / sectorSize_;
        if (lba >= sectors_ || count > sectors_ - lba) return false;
        const bool done = read_(lba * sectorSize_, buffer.data(), static_cast<std::uint32_t>(buffer.size()));
        if (!done) table_.unread = true;
        return done;
    }

    void Problem(std::string sentence) { table_.problems.push_back(std::move(sentence)); }

    void AddWholeDisk() { table_.partitions.push_back({0, sectors_ * sectorSize_, 0, {}}); }

    // A boot sector of a file system ends with the same mark as a table's; its boot code would be taken
    // for partition entries.
    static bool IsFileSystem(const Sector& s) {
        const bool jump = (s[0] == 0xEB && s[2] == 0x90) || s[0] == 0xE9;
        const std::uint16_t bytes = Get16(&s[11]);
        const bool power = bytes >= 256 && bytes <= 4096 && (bytes & (bytes - 1)) == 0;
        if (!jump) return false;
        if (std::memcmp(&s[3], "EXFAT   ", 8) == 0) return true;
        return power && (std::memcmp(&s[3], "NTFS    ", 8) == 0 || std::memcmp(&s[54], "FAT", 3) == 0 ||
                         std::memcmp(&s[82], "FAT32", 5) == 0);
    }

    static bool HasProtectiveEntry(const Sector& s) {
        for (unsigned i = 0; i < 4; ++i) {
            if (s[kMbrEntries + i * kMbrEntrySize + kMbrEntryType] == kTypeProtective) return true;
        }
        return false;
    }

    static bool IsExtended(std::uint8_t type) {
        return type == kTypeExtended || type == kTypeExtendedLba || type == kTypeExtendedOther;
    }

    // Adds sectors [start, start + count) unless they leave [low, high) or lie on another partition.
    void Add(std::uint64_t start, std::uint64_t count, std::uint64_t low, std::uint64_t high,
             std::uint8_t mbrType, const Guid& gptType, const std::uint8_t* unique = nullptr) {
        const std::string name = "partition at sector " + std::to_string(start);
        if (count == 0) return Problem(name + " is empty");
        if (start < low || start >= high || count > high - start) return Problem(name + " leaves the disk");
        Partition added = {start * sectorSize_, count * sectorSize_, mbrType, gptType};
        for (const Partition& other : table_.partitions) {
            if (added.offset < other.offset + other.length && other.offset < added.offset + added.length) {
                return Problem(name + " overlaps another one");
            }
        }
        if (unique != nullptr)
            added.identity.assign(unique, unique + sizeof(Guid));
        else
            added.identity = SignatureAndOffset(added.offset);
        table_.partitions.push_back(std::move(added));
    }

    std::vector<std::uint8_t> SignatureAndOffset(std::uint64_t offset) const {
        std::vector<std::uint8_t> identity(sizeof signature_ + sizeof offset);
        Put(identity.data(), signature_);
        Put(identity.data() + sizeof signature_, offset);
        return identity;
    }

    void ReadMbr(const Sector& first) {
        table_.kind = TableKind::Mbr;
        signature_ = Get32(&first[kMbrSignature]);
        std::optional<std::uint64_t> extended;
        std::uint64_t extendedSectors = 0;
        for (unsigned i = 0; i < 4; ++i) {
            const std::uint8_t* entry = &first[kMbrEntries + i * kMbrEntrySize];
            const std::uint8_t type = entry[kMbrEntryType];
            const std::uint64_t start = Get32(entry + kMbrEntryStart);
            const std::uint64_t count = Get32(entry + kMbrEntrySectors);
            if (type == 0) continue;
            if (!IsExtended(type)) {
                Add(start, count, 1, sectors_, type, {});
            } else if (extended) {
                Problem("there is a second extended partition");
            } else {
                extended = start;
                extendedSectors = count;
            }
        }
        if (extended) ReadLogical(*extended, extendedSectors);
    }

    // Each link of the chain describes one logical partition, relative to itself, and the next link,
    // relative to the first. Links only lead forward, so a chain that turns back ends.
    void ReadLogical(std::uint64_t base, std::uint64_t count) {
        if (base == 0 || base >= sectors_) return Problem("the extended partition leaves the disk");
        const std::uint64_t end = base + std::min(count, sectors_ - base);
        std::uint64_t link = base;
        for (unsigned n = 0; n < kMostLogical; ++n) {
            Sector s(sectorSize_);
            if (!ReadAt(link, s) || Get16(&s[kBootMark]) != kBootMarkValue) {
                return Problem("the chain of logical partitions breaks at sector " + std::to_string(link));
            }
            const std::uint8_t* entry = &s[kMbrEntries];
            const std::uint8_t* next = entry + kMbrEntrySize;
            if (entry[kMbrEntryType] != 0) {
                Add(link + Get32(entry + kMbrEntryStart), Get32(entry + kMbrEntrySectors), link + 1, end,
                    entry[kMbrEntryType], {});
            }
            if (!IsExtended(next[kMbrEntryType])) return;
            const std::uint64_t target = base + Get32(next + kMbrEntryStart);
            if (target <= link || target >= end) {
                return Problem("the chain of logical partitions leads from sector " + std::to_string(link) +
                               " to " + std::to_string(target));
            }
            link = target;
        }
        Problem("there are more than " + std::to_string(kMostLogical) + " logical partitions");
    }

    void ReadGpt() {
        table_.kind = TableKind::Gpt;
        if (ReadGptAt(1)) return;
        const bool unread = std::exchange(table_.unread, false);
        Problem("the primary table is damaged, the backup is used");
        if (ReadGptAt(sectors_ - 1)) return;
        table_.unread = table_.unread || unread;
        Problem("the backup table is damaged too");
    }

    bool ReadGptAt(std::uint64_t lba) {
        Sector header(sectorSize_);
        if (lba < 1 || !ReadAt(lba, header) || !IsSoundHeader(header, lba)) return false;
        Sector entries;
        if (!ReadEntries(header, entries)) return false;
        const std::uint32_t size = Get32(&header[kGptEntrySize]);
        const std::uint32_t count = Get32(&header[kGptEntryCount]);
        const std::uint64_t low = Get64(&header[kGptFirstUsable]);
        const std::uint64_t high = Get64(&header[kGptLastUsable]) + 1;
        for (std::uint32_t i = 0; i < count; ++i) AddGptEntry(&entries[std::size_t{i} * size], low, high);
        return true;
    }

    bool IsSoundHeader(const Sector& header, std::uint64_t lba) {
        if (std::memcmp(header.data(), kGptMagic, 8) != 0) return false;
        const std::uint32_t size = Get32(&header[12]);
        if (size < kGptHeaderSize || size > sectorSize_) return false;
        Sector zeroed = header;
        Put<std::uint32_t>(&zeroed[kGptHeaderCrc], 0);
        if (Crc32(zeroed.data(), size) != Get32(&header[kGptHeaderCrc])) return false;
        const std::uint64_t low = Get64(&header[kGptFirstUsable]);
        const std::uint64_t high = Get64(&header[kGptLastUsable]);
        if (high >= sectors_) Problem("the table is of a larger disk; this one is cut short");
        return Get64(&header[kGptMyLba]) == lba && low >= 2 && low <= high && high < sectors_;
    }

    bool ReadEntries(const Sector& header, Sector& entries) {
        const std::uint64_t size = Get32(&header[kGptEntrySize]);
        const std::uint64_t count = Get32(&header[kGptEntryCount]);
        const bool power = size >= 128 && size <= 4096 && (size & (size - 1)) == 0;
        if (!power || count == 0 || size * count > kMostEntryBytes) return false;
        const std::uint64_t bytes = size * count;
        entries.resize((bytes + sectorSize_ - 1) / sectorSize_ * sectorSize_);
        return ReadAt(Get64(&header[kGptEntriesLba]), entries) &&
               Crc32(entries.data(), bytes) == Get32(&header[kGptEntriesCrc]);
    }

    void AddGptEntry(const std::uint8_t* entry, std::uint64_t low, std::uint64_t high) {
        Guid type;
        std::memcpy(type.data(), entry, type.size());
        if (type == Guid{} || type == kReservedType) return;
        const std::uint64_t first = Get64(entry + kGptEntryFirst);
        const std::uint64_t last = Get64(entry + kGptEntryLast);
        if (last < first) {
            return Problem("partition at sector " + std::to_string(first) + " leaves the disk");
        }
        const std::uint8_t* unique = entry + kGptEntryUnique;
        const bool none =
            std::all_of(unique, unique + sizeof(Guid), [](std::uint8_t byte) { return byte == 0; });
        Add(first, last - first + 1, low, high, 0, type, none ? nullptr : unique);
    }

    const SectorReader& read_;
    const std::uint32_t sectorSize_;
    const std::uint64_t sectors_;
    std::uint32_t signature_ = 0;  // of an MBR disk; 0 where the table has none
    PartitionTable table_;
};

}  // namespace

PartitionTable ReadPartitionTable(const SectorReader& read, std::uint64_t diskSize, std::uint32_t sectorSize) {
    return Reader(read, diskSize, sectorSize).Run();
}

std::uint32_t Crc32(const void* data, std::size_t bytes) {
    return static_cast<std::uint32_t>(crc32_z(0, static_cast<const Bytef*>(data), bytes));
}

}  // namespace machine
