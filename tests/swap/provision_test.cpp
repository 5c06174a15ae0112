// Making and removing the storage files, on a computer whose file system can be told how large a file gets.
#include <algorithm>
#include <gtest/gtest.h>
#include "driver/globals.h"
#include "platform/host/memory/pool.h"
#include "platform/host/sync/thread.h"
#include "tests/support/protected_computer.h"

namespace support {
namespace {

class Provision : public testing::Test {
protected:
    Provision() { EXPECT_EQ(STATUS_SUCCESS, computer.Hardware().PowerOn()); }
    std::vector<std::uint64_t> Sizes() {
        std::vector<std::uint64_t> sizes;
        for (const std::u16string& path : files.Paths()) sizes.push_back(files.SizeOf(path));
        return sizes;
    }
    ProtectedComputer computer;
    machine::ScriptedVolume& files = computer.DataFiles();
};

TEST_F(Provision, AFullFileIsFollowedByTheNextUpToTheSixteenth) {
    files.SetFileLimit(4 * kMiB);
    host::SetPoolOptions({.fill = true});
    EXPECT_EQ(STATUS_SUCCESS, computer.Provision(10 * kMiB));
    host::SetPoolOptions({});
    EXPECT_EQ(Sizes(), (std::vector<std::uint64_t>{kMiB, 4 * kMiB, 4 * kMiB, 2 * kMiB}));
    EXPECT_TRUE(files.Exists(u"\\kvr.MAP") && files.Exists(u"\\kvr.SWP") && files.Exists(u"\\kvr.SWP.02"));
    EXPECT_EQ(10 * kMiB, static_cast<std::uint64_t>(computer.Status().SwapTotalBytes));
    std::vector<std::uint8_t> block(kMiB, 1);
    computer.ReadMedium(files.ExtentsOf(u"\\kvr.SWP").at(0).offset, block.data(), block.size());
    EXPECT_EQ(kMiB, std::count(block.begin(), block.end(), 0)) << "pool reaches the disk";
    files.SetFileLimit(kMiB);
    EXPECT_EQ(STATUS_SUCCESS, computer.Provision(20 * kMiB));
    EXPECT_EQ(17u, Sizes().size()) << "kvr.SWP to kvr.SWP.16, and no map for storage that failed";
    EXPECT_FALSE(files.Exists(u"\\kvr.MAP"));
    EXPECT_EQ(STATUS_SUCCESS, computer.RemoveStorage());
    EXPECT_TRUE(Sizes().empty());
    EXPECT_EQ(0, computer.Status().SwapTotalBytes);
}

TEST_F(Provision, ToldToStopItUndoesWhatItMade) {
    bool stopped = false;
    for (int i = 0; i < 50 && !stopped; ++i) {  // until it is told between its first write and its last
        const SWAP_CONFIG_REQUEST request = StorageRequest(kDataName, 120 * kMiB);
        ASSERT_EQ(STATUS_SUCCESS, computer.Control(IOCTL_KVR_ALLOCATE_SWAP, &request, sizeof(request)));
        while (!files.Exists(u"\\kvr.SWP")) std::this_thread::yield();
        EXPECT_EQ(STATUS_SUCCESS, computer.Control(IOCTL_KVR_STOP_SWAP_THREAD));
        host::JoinSystemThreads();
        stopped = Sizes().empty();
        if (stopped) break;
        ASSERT_EQ(120 * kMiB, static_cast<std::uint64_t>(computer.Status().SwapTotalBytes)) << "left in part";
        EXPECT_EQ(STATUS_SUCCESS, computer.RemoveStorage());
    }
    EXPECT_TRUE(stopped);
    EXPECT_EQ(0, computer.Status().SwapTotalBytes);
}

}  // namespace
}  // namespace support
