// Files on ext2, ext3 and ext4, judged by the file system's own tools.
#include <algorithm>
#include <set>
#include <sstream>
#include "ext_support.h"

namespace {

using namespace ext_test;

constexpr std::uint32_t kBlock = 1024 * 1024;  // what a swap file grows by

struct Kind {
    const char* options;
    std::uint32_t sector;
    std::uint64_t size;
};

class ExtStorage : public ::testing::TestWithParam<Kind> {};

std::uint64_t BlockSize(const Kind& kind) {
    const std::string options = kind.options;
    return std::stoull(options.substr(options.find("-b ") + 3));
}

TEST_P(ExtStorage, BlocksLieWhereTheirRequestsWentAndNeverMove) {
    TestVolume volume(FreshExt(GetParam().size, GetParam().options), GetParam().sector);
    const std::uint64_t blockSize = BlockSize(GetParam());
    Bytes all;
    std::vector<std::uint64_t> places;
    {
        Mounted mounted(volume);
        ASSERT_EQ(mounted.status, STATUS_SUCCESS);
        auto file = mounted.Open(StorageOpen(u"\\kvr.SWP"));
        ASSERT_NE(file, nullptr);
        for (unsigned i = 0; i < 5; ++i) {
            volume.requests.clear();
            const Bytes data = Pattern(kBlock, i);
            ULONG done = 0;
            ASSERT_EQ(file->Write(LONGLONG{i} * kBlock, data.data(), kBlock, done), STATUS_SUCCESS);
            EXPECT_EQ(done, kBlock);
            for (const Request& request : volume.Writes(u"\\kvr.SWP"))
                for (std::uint64_t at = 0; at < request.length; at += blockSize)
                    places.push_back((request.offset + at) / blockSize);
            all.insert(all.end(), data.begin(), data.end());
            ASSERT_TRUE(Sound(volume.bytes)) << "after " << i + 1 << " blocks, with the file still open";
        }
        volume.requests.clear();
        const Bytes again = Pattern(kBlock, 99);
        ULONG done = 0;
        ASSERT_EQ(file->Write(kBlock, again.data(), kBlock, done), STATUS_SUCCESS);
        EXPECT_EQ(volume.requests.size(), volume.Writes(u"\\kvr.SWP").size())
            << "an overwrite touches the data alone";
        std::copy(again.begin(), again.end(), all.begin() + kBlock);
        EXPECT_EQ(file->Read(0, all.data(), 512, done), STATUS_ACCESS_DENIED);
        EXPECT_EQ(file->Write(1, all.data(), 512, done), STATUS_INVALID_PARAMETER);
    }
    // The library believes the bitmaps' checksums, which e2fsck does not look at.
    Mounted again(volume);
    EXPECT_EQ(again.files->WriteFile(u"\\more", Pattern(100, 1)), STATUS_SUCCESS);
    EXPECT_EQ(Debugfs(volume.bytes, "cat /kvr.SWP"), std::string(all.begin(), all.end()));
    std::vector<std::uint64_t> stored;
    std::istringstream blocks(Debugfs(volume.bytes, "blocks /kvr.SWP"));
    for (std::uint64_t block = 0; blocks >> block;) stored.push_back(block);
    for (const std::uint64_t block : places)
        EXPECT_TRUE(std::find(stored.begin(), stored.end(), block) != stored.end()) << block;
    EXPECT_EQ(places.size(), all.size() / blockSize) << "each block is written once";
    const std::string status = Debugfs(volume.bytes, "stat /kvr.SWP");
    EXPECT_NE(status.find("Mode:  0600"), std::string::npos) << status;
    EXPECT_TRUE(status.find("Flags: 0x80010") != std::string::npos ||
                status.find("Flags: 0x10") != std::string::npos)
        << "not immutable: " << status;
    EXPECT_EQ(status.find("[u]"), std::string::npos) << "an extent without data: " << status;
}

TEST_P(ExtStorage, DeletionGivesEverythingBack) {
    TestVolume volume(FreshExt(GetParam().size, GetParam().options), GetParam().sector);
    std::uint64_t before = 0, full = 0, after = 0;
    {
        Mounted mounted(volume);
        ASSERT_EQ(mounted.status, STATUS_SUCCESS);
        ASSERT_EQ(mounted.fileSystem->FreeSpace(before), STATUS_SUCCESS);
        auto file = mounted.Open(StorageOpen(u"\\kvr.SWP"));
        ASSERT_NE(file, nullptr);
        const Bytes data = Pattern(kBlock, 1);
        NTSTATUS status = STATUS_SUCCESS;
        ULONG done = 0;
        for (LONGLONG at = 0; NT_SUCCESS(status); at += kBlock)
            status = file->Write(at, data.data(), kBlock, done);
        EXPECT_EQ(status, STATUS_DISK_FULL);
        ASSERT_EQ(mounted.fileSystem->FreeSpace(full), STATUS_SUCCESS);
        EXPECT_LT(full, 2 * kBlock);
        EXPECT_TRUE(Sound(volume.bytes)) << "full";
        EXPECT_EQ(mounted.files->Delete(u"\\kvr.swp"), STATUS_SHARING_VIOLATION);
        file.reset();
        auto holder = mounted.Open(HoldOpen(u"\\kvr.SWP"));
        EXPECT_EQ(mounted.files->Delete(u"\\kvr.swp"), STATUS_SHARING_VIOLATION);
        holder.reset();
        EXPECT_EQ(mounted.files->Delete(u"\\KVR.swp"), STATUS_SUCCESS);
        ASSERT_EQ(mounted.fileSystem->FreeSpace(after), STATUS_SUCCESS);
        EXPECT_EQ(before, after);
    }
    EXPECT_TRUE(Sound(volume.bytes));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, ExtStorage,
    ::testing::Values(Kind{"-t ext4 -b 4096", 512, 48 * kMiB}, Kind{"-t ext4 -b 4096", 4096, 48 * kMiB},
                      Kind{"-t ext4 -b 1024 -O ^metadata_csum,uninit_bg,^64bit", 512, 37 * kMiB},
                      Kind{"-t ext3 -b 4096", 512, 48 * kMiB}, Kind{"-t ext2 -b 1024", 512, 37 * kMiB}));

}  // namespace
