#include <gtest/gtest.h>
#include "tests/support/scratch_folder.h"
#include "tool/demo/volume_hash.h"

namespace {

using namespace tool;

constexpr std::uint64_t kKiB = 1024, kStart = 8 * kKiB, kSize = 1000 * kKiB;

// Out of order, overlapping, across pieces, and beyond the end; or nothing.
TEST(VolumeHash, SeesEveryByteOfTheVolumeButTheExcludedOnes) {
    const TestFolder folder;
    const std::string image = folder.Sparse("image", kStart + kSize);
    const std::vector<Extent> excluded = {
        {500 * kKiB, 10}, {100 * kKiB, 70 * kKiB}, {160 * kKiB, 20 * kKiB}, {kSize - 7, 100}};
    const VolumeHash whole = HashVolume(image, kStart, kSize, {}),
                     parts = HashVolume(image, kStart, kSize, excluded);
    EXPECT_EQ(whole.covered, kSize);
    EXPECT_EQ(parts.covered, kSize - 80 * kKiB - 17);
    const auto change = [&](std::uint64_t at, bool ofWhole, bool ofParts) {
        TestFolder::Put(image, at, {'x'});
        EXPECT_EQ(HashVolume(image, kStart, kSize, {}) == whole, !ofWhole) << at;
        EXPECT_EQ(HashVolume(image, kStart, kSize, excluded) == parts, !ofParts) << at;
        TestFolder::Put(image, at, {0});
    };
    change(kStart - 1, false, false);
    for (const std::uint64_t at : {std::uint64_t{0}, 64 * kKiB, 180 * kKiB, 500 * kKiB + 10, kSize - 8})
        change(kStart + at, true, true);
    for (const std::uint64_t at : {100 * kKiB, 180 * kKiB - 1, 500 * kKiB + 9, kSize - 1})
        change(kStart + at, true, false);
}

}  // namespace
