// Partition tables: what was written is read back, and what is damaged is left out. (No table, however hostile,
// gives a volume that leaves the disk or lies on another: that is the fuzz target's.)
#include <cstring>
#include <gtest/gtest.h>
#include "machine/partition/partition_format.h"
#include "machine/partition/partition_table.h"

namespace {

using namespace machine;
using namespace machine::table;
using Image = std::vector<std::uint8_t>;
constexpr std::uint64_t kMiB = 1024 * 1024;

struct Case {
    TableKind kind;
    std::uint32_t sector;
    std::size_t count;
};

PartitionTable ReadImage(const Image& image, std::uint32_t sector = 512) {
    const auto read = [&](std::uint64_t offset, void* buffer, std::uint32_t length) {
        std::memcpy(buffer, &image.at(offset), length);
        return true;
    };
    return ReadPartitionTable(read, image.size(), sector);
}

Image MakeImage(const Case& c, std::vector<NewPartition>& parts) {
    std::string error;
    Image image(12 * kMiB);
    EXPECT_TRUE(LayOutPartitions(image.size(), std::vector<std::uint64_t>(c.count), c.kind, parts, error))
        << error;
    const auto pieces = c.kind == TableKind::Gpt ? MakeGpt(image.size(), c.sector, parts, 3)
                                                 : MakeMbr(image.size(), c.sector, parts, 3);
    for (const DiskPiece& piece : pieces)
        std::memcpy(&image[piece.offset], piece.bytes.data(), piece.bytes.size());
    return image;
}

TEST(PartitionTable, ReadsBackWhatWasWritten) {
    for (const Case& c : {Case{TableKind::Mbr, 4096, 4}, {TableKind::Mbr, 512, 7}, {TableKind::Gpt, 4096, 9}}) {
        std::vector<NewPartition> parts;
        const Image image = MakeImage(c, parts);
        const PartitionTable table = ReadImage(image, c.sector);
        EXPECT_EQ(c.kind, table.kind);
        EXPECT_TRUE(table.problems.empty()) << table.problems[0];
        ASSERT_EQ(parts.size(), table.partitions.size());
        for (std::size_t i = 0; i < parts.size(); ++i) {
            EXPECT_EQ(parts[i].offset, table.partitions[i].offset);
            EXPECT_EQ(parts[i].length, table.partitions[i].length);
        }
    }
}

TEST(PartitionTable, DiskWithoutTableIsOneVolume) {
    EXPECT_EQ(kMiB, ReadImage(Image(kMiB)).partitions.at(0).length);
    // Boot code where partition entries would be.
    Image ntfs(kMiB);
    std::memcpy(ntfs.data(), "\xEB\x52\x90NTFS    ", 11);
    Put<std::uint16_t>(&ntfs[11], 512);
    Put<std::uint16_t>(&ntfs[kBootMark], kBootMarkValue);
    std::memset(&ntfs[kMbrEntries], 0x41, 64);
    const PartitionTable table = ReadImage(ntfs);
    EXPECT_EQ(TableKind::None, table.kind);
    EXPECT_EQ(kMiB, table.partitions.at(0).length);
    // The same entries without the file system's mark are a table, of nothing usable.
    ntfs[3] = 'X';
    EXPECT_TRUE(ReadImage(ntfs).partitions.empty());
}

TEST(PartitionTable, GptFallsBackToItsBackup) {
    std::vector<NewPartition> parts;
    const Case c = {TableKind::Gpt, 512, 3};
    const Image image = MakeImage(c, parts);
    for (const std::size_t damaged : {std::size_t{512 + 20}, std::size_t{1024 + 40}}) {
        Image bad = image;
        bad[damaged] ^= 1;
        const PartitionTable table = ReadImage(bad);
        EXPECT_EQ(3u, table.partitions.size());
        EXPECT_EQ(1u, table.problems.size());
        bad[bad.size() - 512 + 20] ^= 1;
        EXPECT_TRUE(ReadImage(bad).partitions.empty()) << "both damaged: the sum of neither is trusted";
    }
}

TEST(PartitionTable, MbrChainsEnd) {
    std::vector<NewPartition> parts;
    const Image image = MakeImage({TableKind::Mbr, 512, 6}, parts);
    const std::size_t link = parts[3].offset - kPartitionAlignment;
    const std::size_t next = link + kMbrEntries + kMbrEntrySize + kMbrEntryStart;
    for (const std::uint32_t target : {0u, 1u, 0xFFFFFFFFu, 0x7FFFFFFFu, 64u}) {
        Image bad = image;
        Put<std::uint32_t>(&bad[next], target);
        const PartitionTable table = ReadImage(bad);
        EXPECT_EQ(4u, table.partitions.size()) << "target " << target;
        EXPECT_EQ(1u, table.problems.size()) << "a chain that turns back is not walked again";
    }
}

}  // namespace
