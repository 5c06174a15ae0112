#include <gtest/gtest.h>

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
