#include <gtest/gtest.h>
#include "tests/support/scratch_folder.h"
#include "tool/demo/volume_hash.h"

namespace {

using namespace tool;

constexpr std::uint64_t kKiB = 1024;
constexpr std::uint64_t kSize = 1000 * kKiB;

struct Image {
    TestFolder folder;
    std::string path = folder.Sparse("image", 8 * kKiB + kSize);

    Image() {
        for (std::uint64_t at = 100; at < kSize; at += 170 * kKiB) Write(at, 'a');
    }
    void Write(std::uint64_t at, char byte) { TestFolder::Put(path, 8 * kKiB + at, {byte}); }
    VolumeHash Hash(const std::vector<Extent>& excluded = {}) const {
        return HashVolume(path, 8 * kKiB, kSize, excluded);
    }
};

// Out of order, overlapping, across pieces, and beyond the end; or nothing.
TEST(VolumeHash, SeesEveryByteOfTheVolumeButTheExcludedOnes) {
    Image image;
    const std::vector<Extent> some = {
        {500 * kKiB, 10}, {100 * kKiB, 70 * kKiB}, {160 * kKiB, 20 * kKiB}, {kSize - 7, 100}};
    const auto isExcluded = [](std::uint64_t at) {
        return (at >= 100 * kKiB && at < 180 * kKiB) || (at >= 500 * kKiB && at < 500 * kKiB + 10) ||
               at >= kSize - 7;
    };
    for (const auto& excluded : {std::vector<Extent>{}, some}) {
        const VolumeHash before = image.Hash(excluded);
        EXPECT_EQ(before.covered, excluded.empty() ? kSize : kSize - 80 * kKiB - 17);
        for (const std::uint64_t at :
             {std::uint64_t{0}, 64 * kKiB - 1, 64 * kKiB, 100 * kKiB - 1, 100 * kKiB, 180 * kKiB - 1,
              180 * kKiB, 500 * kKiB - 1, 500 * kKiB + 9, 500 * kKiB + 10, kSize - 8, kSize - 7, kSize - 1}) {
            image.Write(at, 'x');
            EXPECT_EQ(image.Hash(excluded) == before, !excluded.empty() && isExcluded(at)) << at;
            image.Write(at, 0);
        }
        TestFolder::Put(image.path, 8 * kKiB - 1, {'x'});  // before the volume
        EXPECT_TRUE(image.Hash(excluded) == before);
    }
}

}  // namespace
