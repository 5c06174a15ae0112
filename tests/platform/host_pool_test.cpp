#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "platform/host/check/injector.h"
#include "platform/host/memory/pool.h"

namespace {

using namespace host;

constexpr ULONG TagA = 0x41414141;
constexpr ULONG TagB = 0x42424242;

class Pool : public testing::Test {
protected:
    void TearDown() override {
        DisarmFaults();
        SetPoolLimit(kNoPoolLimit);
        SetPoolOptions({});
        PoolReclaimAll();
    }
    static void* Allocate(SIZE_T bytes, ULONG tag = TagA) {
        return ExAllocatePoolWithTag(NonPagedPool, bytes, tag);
    }
};

// Each block is filled, so that two that overlapped would show; and given back by a thread that did not take
// it, which keeps some, passes the rest on and ends.
TEST_F(Pool, BlocksOfEverySizeLieApartWhoeverGivesThemBack) {
    std::vector<SIZE_T> sizes = {0, 1};
    for (SIZE_T size = 8; size <= 256 * 1024; size += size / 8)
        for (const SIZE_T off : {-1, 0, 1}) sizes.push_back(size + off);
    // Around the largest that are kept, and more of them than are kept.
    for (const SIZE_T size : {2 << 20, (2 << 20) - 64, (2 << 20) - 256, 1 << 20, 1 << 20, 1 << 20})
        sizes.push_back(size);
    for (int round = 0; round < 3; ++round) {
        std::vector<std::pair<UCHAR*, SIZE_T>> blocks;
        for (SIZE_T i = 0; i < 4 * sizes.size(); ++i) {
            const SIZE_T size = sizes[i % sizes.size()];
            auto* block = static_cast<UCHAR*>(Allocate(size));
            ASSERT_NE(block, nullptr);
            ASSERT_EQ(reinterpret_cast<ULONG_PTR>(block) % 16, 0u);
            std::memset(block, static_cast<int>(i), size);
            blocks.emplace_back(block, size);
        }
        PoolCheck();
        for (SIZE_T i = 0; i < blocks.size(); ++i) {
            const auto [block, size] = blocks[i];
            const auto mark = static_cast<UCHAR>(i);
            ASSERT_TRUE(std::all_of(block, block + size, [=](UCHAR byte) { return byte == mark; })) << size;
        }
        std::thread([&] {
            for (const auto& [block, size] : blocks) ExFreePoolWithTag(block, TagA);
        }).join();
    }
    EXPECT_TRUE(PoolReclaimAll().empty());
}

TEST_F(Pool, BalancesEachTag) {
    ResetPoolPeaks();
    void* a = Allocate(100);
    void* b = Allocate(50);
    ExFreePoolWithTag(a, TagA);
    const PoolBalance balance = PoolUsage(TagA);
    EXPECT_EQ(balance.blocks, 1u);
    EXPECT_EQ(balance.bytes, 50u);
    EXPECT_EQ(balance.peakBytes, 150u);
    EXPECT_EQ(balance.PlatformBytes(), 66u);
    ExFreePoolWithTag(b, TagA);
    EXPECT_TRUE(PoolReclaimAll().empty());
}

TEST_F(Pool, LimitFailsWhatWouldExceedIt) {
    SetPoolLimit(1000);
    void* a = Allocate(600);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(Allocate(401), nullptr);
    EXPECT_NE(Allocate(400, TagB), nullptr);
    ExFreePoolWithTag(a, TagA);
    EXPECT_NE(Allocate(600), nullptr);
}

TEST_F(Pool, NthAllocationFailsAndOnlyThat) {
    FailCall(FaultBit(Fault::Allocate), 3);
    for (int call = 1; call <= 5; ++call) EXPECT_EQ(Allocate(8) == nullptr, call == 3) << call;
    EXPECT_EQ(FaultsInjected(), 1u);
    FailFromCall(FaultBit(Fault::Allocate), 2);
    for (int call = 1; call <= 4; ++call) EXPECT_EQ(Allocate(8) == nullptr, call >= 2) << call;
    DisarmFaults();
    EXPECT_NE(Allocate(8), nullptr);
    EXPECT_EQ(FaultCalls(Fault::Allocate), 4u);
}

}  // namespace
