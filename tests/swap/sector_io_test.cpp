#include "tests/swap/swap_volume.h"

namespace support {
namespace {

class SectorIo : public SwapVolumeTest {
protected:
    SectorIo() { AddFree(kSwap, 2 << 20); }

    // Free space enough that only the tests of the gate meet the low-space limit: it is never touched.
    void SetUp() override { AddFree(1ll << 40, 0x4000000); }
};

TEST_F(SectorIo, NothingUndefinedIsRead) {
    ASSERT_EQ(Write(100 * S, Data(2 * S, 1)), STATUS_SUCCESS);
    host::SetPoolOptions({.fill = true});
    disk_->FailRange(IRP_MJ_READ, 102 * S, 103 * S, STATUS_IO_DEVICE_ERROR);
    std::vector<std::uint8_t> data(4 * S + 10, 0xEE);
    const host::Outcome read = Send(IRP_MJ_READ, 100 * S, data.data(), data.size());
    host::SetPoolOptions({});
    EXPECT_EQ(read.status, STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(read.information, 0u);
    auto expected = Data(2 * S, 1);
    expected.resize(4 * S + 10);
    EXPECT_EQ(data, expected);
}

TEST_F(SectorIo, SpaceThatRunsOutFailsTheWriteAndKeepsTheOldData) {
    ResetSwapMaps(filter_);
    AddFree(kSwap, 2 << 20);
    const auto before = Read(0, 64 * S);
    EXPECT_EQ(Write(0, Data(64 * S, 1)), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(Read(0, 64 * S), before);
    EXPECT_EQ(Free(), 2u << 20);
}

TEST_F(SectorIo, UnalignedAndUnstartedRequestsAreRefused) {
    std::vector<std::uint8_t> data(4 * S, 1);
    EXPECT_EQ(Send(IRP_MJ_WRITE, 100 * S + 8, data.data(), 2 * S).status, STATUS_INVALID_PARAMETER);
    v->BytesPerSector = 0;
    EXPECT_EQ(Send(IRP_MJ_WRITE, 100 * S, data.data(), 2 * S).status, STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(Send(IRP_MJ_READ, 100 * S, data.data(), 2 * S).status, STATUS_DEVICE_NOT_READY);
    v->BytesPerSector = S;
}

TEST_F(SectorIo, AWriteWithoutAWholeSectorNeedsItsBufferAllTheSame) {
    std::uint8_t byte = 1;
    for (const ULONG length : {0u, 1u}) {
        host::FailCall(host::FaultsOf({host::Fault::MapPages}), 1);
        const NTSTATUS status = Send(IRP_MJ_WRITE, 100 * S, &byte, length).status;
        host::DisarmFaults();
        EXPECT_EQ(status, length == 0 ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER);
        EXPECT_EQ(host::AssertionCount(), length);
    }
    host::ResetAssertionCount();
    EXPECT_EQ(Send(IRP_MJ_WRITE, 100 * S, &byte, 1).status, STATUS_SUCCESS);
}

// Another write gets to the map between the cut of this one and its turn.
TEST_F(SectorIo, AWriteThatIsOvertakenUsesTheOthersSpace) {
    disk_->PendAlways(true);
    // [100, 102) new, [102, 104) in place, [104, 120) found free by the cut.
    ResetSwapMaps(filter_);
    AddFree(1ll << 40, 0x4000000);
    AddFree(kSwap, 64 * S);
    Redirect(102 * S, kSwap + 100 * S, 2 * S);
    int calls = 0;
    disk_->Before([&](const Transfer&) {
        if (++calls != 1) return;
        Redirect(108 * S, kSwap + (1 << 20), 4 * S);          // inside this write's second run
        Redirect(104 * S, kSwap + (1 << 20) + 8 * S, 2 * S);  // where it begins
    });
    const auto data = Data(20 * S, 5);
    ASSERT_EQ(Write(100 * S, data), STATUS_SUCCESS);
    EXPECT_EQ(CheckMaps(v), "");
    auto seen = Read(100 * S, 20 * S);
    // The stretch in the middle keeps the other write's space, which that write (only its commit was played)
    // has not filled; all else is this write's data.
    std::copy(data.begin() + 8 * S, data.begin() + 12 * S, seen.begin() + 8 * S);
    EXPECT_EQ(seen, data);
    disk_->Before(nullptr);
}

// The write's own space may take the rest below the limit: the gate is asked once, for the run, and not again
// for each piece that the space came in.
TEST_F(SectorIo, TheLowSpaceGateIsAskedOncePerRun) {
    ResetSwapMaps(filter_);
    for (int i = 0; i < 3; ++i) AddFree(kSwap + i * 8 * S, 4 * S);
    AddFree(1ll << 40, 0x3000000 - 10 * S);  // two sectors above the limit in all
    FILE_OBJECT file{};
    RtlInitUnicodeString(&file.FileName, W("\\report.doc"));
    auto data = Data(12 * S, 1);
    host::Request request{.major = IRP_MJ_WRITE, .length = 12 * S, .offset = 100 * S, .buffer = data.data()};
    request.originalFile = &file;
    EXPECT_EQ(host::Send(filter_, request).status, STATUS_SUCCESS);
    EXPECT_EQ(Read(100 * S, 12 * S), data);
    request.offset = 200 * S;
    EXPECT_EQ(host::Send(filter_, request).status, STATUS_MEDIA_WRITE_PROTECTED);
}

}  // namespace
}  // namespace support
