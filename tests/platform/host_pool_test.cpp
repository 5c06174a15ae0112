#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "platform/host/debug_sink.h"
#include "platform/host/injector.h"
#include "platform/host/pool.h"

namespace {

using namespace host;

constexpr ULONG TagA = 0x41414141;
constexpr ULONG TagB = 0x42424242;

class Pool : public testing::Test {
protected:
    void TearDown() override {
        DisarmFaults();
        SetPoolLimit(NoPoolLimit);
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
    void* other = Allocate(7, TagB);
    ExFreePoolWithTag(a, TagA);
    const PoolBalance balance = PoolUsage(TagA);
    EXPECT_EQ(balance.blocks, 1u);
    EXPECT_EQ(balance.bytes, 50u);
    EXPECT_EQ(balance.peakBytes, 150u);
    EXPECT_EQ(balance.PlatformBytes(), 66u);
    EXPECT_EQ(PoolUsage(TagB).bytes, 7u);
    ExFreePoolWithTag(b, TagA);
    ExFreePoolWithTag(other, TagB);
    EXPECT_TRUE(PoolReclaimAll().empty());
}

TEST_F(Pool, ReclaimNamesAndFreesWhatIsOutstanding) {
    for (int i = 0; i < 5; ++i) Allocate(10);
    ExFreePoolWithTag(Allocate(10, TagB), TagB);
    const auto outstanding = PoolReclaimAll();
    ASSERT_EQ(outstanding.size(), 1u);
    EXPECT_EQ(outstanding[0].tag, TagA);
    EXPECT_EQ(outstanding[0].blocks, 5u);
    EXPECT_EQ(PoolUsage(TagA).blocks, 0u);
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

TEST_F(Pool, FillShowsBytesNobodyWrote) {
    SetPoolOptions({.fill = true, .quarantineBytes = 0});
    const auto* block = static_cast<const UCHAR*>(Allocate(64));
    EXPECT_EQ(block[0], 0xCD);
    EXPECT_EQ(block[63], 0xCD);
}

TEST_F(Pool, EmptyAndAlignedBlocks) {
    for (SIZE_T bytes : {0, 1, 15, 16, 17, 4096, 20 << 20}) {
        void* block = Allocate(bytes);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<ULONG_PTR>(block) % 16, 0u);
        std::memset(block, 0xFF, bytes);
        ExFreePoolWithTag(block, TagA);
    }
}

// ---- the injector, through the pool and by itself ----------------------------------------------------

std::vector<bool> Pattern(FaultSet set, ULONGLONG seed, std::initializer_list<Fault> calls) {
    std::vector<bool> failed;
    FailRandomly(set, seed, 300'000);
    for (int round = 0; round < 100; ++round) {
        for (Fault kind : calls) failed.push_back(InjectFault(kind));
    }
    DisarmFaults();
    return failed;
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

TEST_F(Pool, KindsOfASetAreCountedTogether) {
    FailCall(FaultsOf({Fault::Registry, Fault::FileOpen}), 3);
    EXPECT_FALSE(InjectFault(Fault::Registry));
    EXPECT_FALSE(InjectFault(Fault::LowerIo));
    EXPECT_FALSE(InjectFault(Fault::FileOpen));
    {
        const FaultPause pause;
        EXPECT_FALSE(InjectFault(Fault::Registry));
    }
    EXPECT_TRUE(InjectFault(Fault::Registry));
    EXPECT_FALSE(InjectFault(Fault::Registry));
    EXPECT_EQ(FaultCallsOfSet(), 4u);
    EXPECT_EQ(FaultCalls(Fault::LowerIo), 1u);
}

TEST_F(Pool, SeedReplaysWhateverElseIsCalled) {
    const FaultSet set = FaultsOf({Fault::Allocate, Fault::LowerIo});
    const ULONGLONG mark = DebugMark();
    const auto alone = Pattern(set, 42, {Fault::Allocate});
    EXPECT_TRUE(DebugSaid(mark, "seed 42"));
    EXPECT_EQ(alone, Pattern(set, 42, {Fault::Allocate}));
    EXPECT_NE(alone, Pattern(set, 43, {Fault::Allocate}));
    const auto mixed = Pattern(set, 42, {Fault::LowerIo, Fault::Allocate, Fault::Registry});
    int failures = 0;
    for (SIZE_T i = 0; i < alone.size(); ++i) {
        EXPECT_EQ(alone[i], mixed[3 * i + 1]) << i;
        EXPECT_FALSE(mixed[3 * i + 2]) << i;
        failures += alone[i] ? 1 : 0;
    }
    EXPECT_GT(failures, 15);
    EXPECT_LT(failures, 45);
}

}  // namespace
