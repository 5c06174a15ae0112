#include <gtest/gtest.h>
#include "tests/tool/scratch_folder.h"
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

TEST(VolumeHash, SeesEveryByteOfTheVolumeAndNoOther) {
    Image image;
    const VolumeHash before = image.Hash();
    EXPECT_EQ(before.covered, kSize);
    for (const std::uint64_t at : {std::uint64_t{0}, 64 * kKiB - 1, 64 * kKiB, 300 * kKiB, kSize - 1}) {
        image.Write(at, 'x');
        EXPECT_FALSE(image.Hash() == before) << at;
        image.Write(at, 0);
        EXPECT_TRUE(image.Hash() == before) << at;
    }
    TestFolder::Put(image.path, 8 * kKiB - 1, {'x'});  // before the volume
    EXPECT_TRUE(image.Hash() == before);
}

TEST(VolumeHash, LeavesOutExactlyTheExcludedBytes) {
    Image image;
    // Out of order, overlapping, across pieces, and beyond the end.
    const std::vector<Extent> excluded = {
        {500 * kKiB, 10}, {100 * kKiB, 70 * kKiB}, {160 * kKiB, 20 * kKiB}, {kSize - 7, 100}};
    const VolumeHash before = image.Hash(excluded);
    EXPECT_EQ(before.covered, kSize - 80 * kKiB - 10 - 7);
    for (const std::uint64_t at : {100 * kKiB, 180 * kKiB - 1, 500 * kKiB + 9, kSize - 7}) {
        image.Write(at, 'x');
        EXPECT_TRUE(image.Hash(excluded) == before) << at;
    }
    for (const std::uint64_t at : {100 * kKiB - 1, 180 * kKiB, 500 * kKiB - 1, 500 * kKiB + 10, kSize - 8}) {
        image.Write(at, 'x');
        EXPECT_FALSE(image.Hash(excluded) == before) << at;
        image.Write(at, 0);
    }
}

}  // namespace
