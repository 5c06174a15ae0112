#include <gtest/gtest.h>
#include "machine/partition/subprocess.h"
#include "tests/support/scratch_folder.h"
#include "tool/error.h"
#include "tool/demo/image_source.h"
#include "tool/demo/offline_ntfs.h"

namespace {

using namespace tool;

constexpr std::uint64_t kVolume = 24 * 1024 * 1024;
constexpr std::uint64_t kStart = 1024 * 1024;

TEST(FindVolume, TakesTheNtfsVolumeOfAnImageOrSaysWhyNot) {
    const TestFolder folder;
    const std::string volume = folder.Sparse("volume", kVolume),
                      image = folder.Sparse("image", kStart + kVolume);
    const machine::ToolResult result = machine::RunTool(
        "mkntfs", {"-q", "-F", "-Q", "-p", "2048", "-H", "255", "-S", "63", "-s", "512", volume});
    ASSERT_TRUE(result.started && result.exitCode == 0) << result.output;
    TestFolder::Put(image, kStart, TestFolder::Bytes(volume));
    EXPECT_EQ(FindVolume(volume).length, kVolume);
    // One MBR entry for the volume, one for something else.
    std::vector<char> table(66, 0);
    const auto entry = [&](std::size_t at, char type, std::uint32_t start, std::uint32_t sectors) {
        table[at + 4] = type;
        for (std::size_t i = 0; i < 4; ++i) {
            table[at + 8 + i] = static_cast<char>(start >> 8 * i);
            table[at + 12 + i] = static_cast<char>(sectors >> 8 * i);
        }
    };
    entry(0, 7, kStart / 512, kVolume / 512);
    entry(16, char(0x83), 100, 200);
    table[64] = 0x55, table[65] = char(0xAA);
    TestFolder::Put(image, 446, table);
    const Place place = FindVolume(image);
    EXPECT_EQ(place.offset, kStart);
    EXPECT_EQ(place.length, kVolume);
    EXPECT_EQ(place.sectorBytes, 512u);

    TestFolder::Put(image, kStart, std::vector<char>(512, 0));
    EXPECT_THROW(FindVolume(image), Error);
    EXPECT_THROW(FindVolume(folder.File("missing")), Error);
    EXPECT_THROW(FindVolume(folder.Path()), Error);
    EXPECT_THROW(FindVolume(folder.Sparse("empty", 0)), Error);
}

TEST(PlanSwap, FitsTheVolumeOrRefuses) {
    constexpr std::uint64_t kMiB = 1024 * 1024;
    EXPECT_THROW(PlanSwap("x", 100 * kMiB), Error);
    for (std::uint64_t free = 200 * kMiB; free < 500 * kMiB; free += 10 * kMiB) {
        const SwapPlan plan = PlanSwap("x", free);
        EXPECT_LE(plan.neededOnVolume, free);
        EXPECT_GT(plan.swapBytes, static_cast<std::int64_t>(51 * kMiB));  // what a merge must find free
    }
}

}  // namespace
