#include <random>
#include "tests/swap/swap_volume.h"

namespace support {
namespace {

class SectorIo : public SwapVolumeTest {
protected:
    SectorIo() { AddFree(kSwap, 2 << 20); }

    // Free space enough that only the tests of the gate meet the low-space limit: it is never touched.
    void SetUp() override { AddFree(1ll << 40, 0x4000000); }
};

using Transfers = std::vector<Transfer>;

TEST_F(SectorIo, RedirectedDataIsReadBackAndTheVolumeStaysAsItWas) {
    const auto before = OnDisk(0, kSwap);
    const auto data = Data(8 * S, 1);
    EXPECT_EQ(Write(100 * S, data), STATUS_SUCCESS);
    EXPECT_EQ(disk_->TakeTransfers(), (Transfers{{IRP_MJ_WRITE, kSwap, 8 * S}}));
    EXPECT_EQ(Read(100 * S, 8 * S), data);
    EXPECT_EQ(OnDisk(0, kSwap), before);
    EXPECT_EQ(Used(), 8 * S);
    // Overwritten in place, partly: no new space.
    const auto newer = Data(2 * S, 2);
    EXPECT_EQ(Write(102 * S, newer), STATUS_SUCCESS);
    EXPECT_EQ(Used(), 8 * S);
    EXPECT_EQ(Read(102 * S, 2 * S), newer);
    EXPECT_EQ(Read(100 * S, 2 * S), std::vector<std::uint8_t>(data.begin(), data.begin() + 2 * S));
    // Partly new: space for the new part only.
    const auto wide = Data(16 * S, 3);
    EXPECT_EQ(Write(96 * S, wide), STATUS_SUCCESS);
    EXPECT_EQ(Used(), 16 * S);
    EXPECT_EQ(Read(96 * S, 16 * S), wide);
    EXPECT_EQ(OnDisk(0, kSwap), before);
}

TEST_F(SectorIo, AReadIsAssembledFromItsRunsOrPassedDown) {
    ASSERT_EQ(Write(102 * S, Data(2 * S, 1)), STATUS_SUCCESS);
    disk_->TakeTransfers();
    std::vector<std::uint8_t> data(8 * S + 100, 0xEE);
    const host::Outcome read = Send(IRP_MJ_READ, 100 * S, data.data(), data.size());
    EXPECT_EQ(read.status, STATUS_SUCCESS);
    EXPECT_EQ(read.information, 8 * S);
    EXPECT_EQ(
        disk_->TakeTransfers(),
        (Transfers{{IRP_MJ_READ, 100 * S, 2 * S}, {IRP_MJ_READ, kSwap, 2 * S}, {IRP_MJ_READ, 104 * S, 4 * S}}));
    auto expected = OnDisk(100 * S, 8 * S);
    std::ranges::copy(Data(2 * S, 1), expected.begin() + 2 * S);
    expected.resize(8 * S + 100);  // a tail of less than a sector is zero
    EXPECT_EQ(data, expected);
    // Nothing of it redirected, or less than a sector: one lower request, the caller's own.
    EXPECT_EQ(Read(200 * S, 8 * S), OnDisk(200 * S, 8 * S));
    EXPECT_EQ(disk_->TakeTransfers(), (Transfers{{IRP_MJ_READ, 200 * S, 8 * S}}));
    EXPECT_EQ(Read(102 * S, 100), OnDisk(102 * S, 100));
}

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
    // The tail is zero without a bounce buffer as well (the second allocation, after the segment).
    disk_->FailNothing();
    std::ranges::fill(data, 0xEE);
    host::FailCall(host::FaultBit(host::Fault::Allocate), 3);
    EXPECT_EQ(Send(IRP_MJ_READ, 100 * S, data.data(), data.size()).status, STATUS_SUCCESS);
    EXPECT_EQ(host::FaultsInjected(), 1u);
    host::DisarmFaults();
    EXPECT_EQ(std::count(data.end() - 10, data.end(), 0), 10);
}

TEST_F(SectorIo, AFailedWriteTakesNothing) {
    ASSERT_EQ(Write(100 * S, Data(2 * S, 1)), STATUS_SUCCESS);
    const auto before = Read(96 * S, 16 * S);
    const ULONG64 used = Used();
    const ULONG64 free = Free();
    disk_->FailRange(IRP_MJ_WRITE, kSwap + 6 * S, kSwap + 7 * S, STATUS_IO_DEVICE_ERROR);
    // Runs: new, in place, new; the third meets the bad sector.
    std::vector<std::uint8_t> data = Data(16 * S, 2);
    const host::Outcome wrote = Send(IRP_MJ_WRITE, 96 * S, data.data(), data.size());
    EXPECT_EQ(wrote.status, STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(wrote.information, 0u);
    EXPECT_EQ(Used(), used);
    EXPECT_EQ(Free(), free);
    auto after = Read(96 * S, 16 * S);
    std::copy(before.begin() + 4 * S, before.begin() + 6 * S, after.begin() + 4 * S);  // in place: not undone
    EXPECT_EQ(after, before);
}

TEST_F(SectorIo, SpaceThatRunsOutFailsTheWriteAndKeepsTheOldData) {
    ResetSwapMaps(filter_);
    AddFree(kSwap, 2 << 20);
    const auto before = Read(0, 64 * S);
    EXPECT_EQ(Write(0, Data(64 * S, 1)), STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(Read(0, 64 * S), before);
    EXPECT_EQ(Free(), 2u << 20);
}

TEST_F(SectorIo, ShortUnalignedAndUnstartedWrites) {
    disk_->TakeTransfers();
    std::vector<std::uint8_t> data(4 * S, 1);
    const host::Outcome shorter = Send(IRP_MJ_WRITE, 100 * S, data.data(), S - 1);
    EXPECT_EQ(shorter.status, STATUS_SUCCESS);
    EXPECT_EQ(shorter.information, 0u);
    EXPECT_EQ(Send(IRP_MJ_WRITE, 100 * S + 8, data.data(), 2 * S).status, STATUS_INVALID_PARAMETER);
    v->BytesPerSector = 0;
    EXPECT_EQ(Send(IRP_MJ_WRITE, 100 * S, data.data(), 2 * S).status, STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(Send(IRP_MJ_READ, 100 * S, data.data(), 2 * S).status, STATUS_DEVICE_NOT_READY);
    v->BytesPerSector = S;
    EXPECT_TRUE(disk_->TakeTransfers().empty());
}

TEST_F(SectorIo, WithoutASwapDeviceNothingIsTouched) {
    ASSERT_EQ(Write(100 * S, Data(2 * S, 1)), STATUS_SUCCESS);
    disk_->TakeTransfers();
    v->SwapFile = nullptr;
    std::vector<std::uint8_t> data(4 * S);
    EXPECT_EQ(Send(IRP_MJ_READ, 100 * S, data.data(), 4 * S).status, STATUS_NO_SUCH_DEVICE);
    EXPECT_EQ(Send(IRP_MJ_WRITE, 100 * S, data.data(), 4 * S).status, STATUS_NO_SUCH_DEVICE);
    EXPECT_TRUE(disk_->TakeTransfers().empty());
    EXPECT_EQ(Read(200 * S, S), OnDisk(200 * S, S));  // does not need it
    v->SwapFile = &swapFile_;
}

TEST_F(SectorIo, PagesAreLockedMappedAndReleased) {
    std::vector<std::uint8_t> data = Data(4 * S, 1);
    const auto send = [&](UCHAR major, host::Pages pages) {
        return Send(major, 100 * S, data.data(), 4 * S, pages).status;
    };
    EXPECT_EQ(send(IRP_MJ_WRITE, host::Pages::Bad), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Used(), 0u);
    EXPECT_EQ(send(IRP_MJ_WRITE, host::Pages::Unlocked), STATUS_SUCCESS);
    EXPECT_EQ(send(IRP_MJ_READ, host::Pages::Bad), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(send(IRP_MJ_READ, host::Pages::Unlocked), STATUS_SUCCESS);
    EXPECT_EQ(send(IRP_MJ_READ, host::Pages::None), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(send(IRP_MJ_WRITE, host::Pages::None), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(host::AssertionCount(), 2u);
    host::ResetAssertionCount();
    // An associated request whose master's pages cannot be locked.
    host::Request request{.major = IRP_MJ_WRITE, .length = 4 * S, .offset = 100 * S, .buffer = data.data()};
    request.associated = true;
    request.masterPages = host::Pages::Bad;
    EXPECT_EQ(host::Send(filter_, request).status, STATUS_ACCESS_VIOLATION);
    request.masterPages = host::Pages::Unlocked;
    EXPECT_EQ(host::Send(filter_, request).status, STATUS_SUCCESS);
}

// Another write gets to the map between the cut of this one and its turn.
TEST_F(SectorIo, AWriteThatIsOvertakenUsesTheOthersSpace) {
    disk_->PendAlways(true);
    int calls = 0;
    disk_->Before([&](const Transfer&) {
        if (++calls == 1) Redirect(108 * S, kSwap + (1 << 20), 4 * S);        // inside this write's second run
        if (calls == 1) Redirect(104 * S, kSwap + (1 << 20) + 8 * S, 2 * S);  // where it begins
    });
    ASSERT_EQ(Write(102 * S, Data(2 * S, 1)), STATUS_SUCCESS);
    calls = 1;
    // [100, 102) new, [102, 104) in place, [104, 120) found free by the cut.
    ResetSwapMaps(filter_);
    AddFree(1ll << 40, 0x4000000);
    AddFree(kSwap, 64 * S);
    Redirect(102 * S, kSwap + 100 * S, 2 * S);
    calls = 0;
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

TEST_F(SectorIo, BuffersAreWrittenLikeRequests) {
    auto data = Data(4 * S, 1);
    const LARGE_INTEGER at = Large(100 * S);
    EXPECT_EQ(WriteSectorsFromBuffer(v, nullptr, 4 * S, &at), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(Said("enter(0)") && Said("leave(0) c000000d"));
    EXPECT_EQ(host::AssertionCount(), 1u);
    host::ResetAssertionCount();
    EXPECT_EQ(WriteSectorsFromBuffer(v, data.data(), S - 1, &at), STATUS_SUCCESS);
    EXPECT_EQ(Used(), 0u);
    EXPECT_EQ(WriteSectorsFromBuffer(v, data.data(), 4 * S, &at), STATUS_SUCCESS);
    EXPECT_EQ(Read(100 * S, 4 * S), data);
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

// Every allocation, request, lock and map of a read and of a write fails once: the request ends with a status,
// nothing leaks, and the maps hold.
TEST_F(SectorIo, EveryFailureOnTheWayIsSurvived) {
    ResetSwapMaps(filter_);
    AddFree(kSwap, 4 * S);
    AddFree(kSwap + 8 * S, 4 * S);
    AddFree(kSwap + 16 * S, 1 << 20);
    AddFree(1ll << 40, 0x4000000);
    const host::FaultSet set =
        host::FaultsOf({host::Fault::Allocate, host::Fault::BuildRequest, host::Fault::AllocateMdl,
                        host::Fault::LockPages, host::Fault::MapPages});
    Redirect(104 * S, kSwap + (3 << 19), S);  // so that no read is passed down
    bool more = true;
    for (ULONGLONG n = 1; more; ++n) {
        ASSERT_LT(n, 200u);
        std::vector<std::uint8_t> data = Data(12 * S, static_cast<int>(n));
        more = false;
        for (UCHAR major : {IRP_MJ_WRITE, IRP_MJ_READ}) {
            host::FailCall(set, n);
            const host::Outcome out = Send(major, 100 * S, data.data(), 12 * S, host::Pages::Unlocked);
            more = more || host::FaultsInjected() != 0;
            host::DisarmFaults();
            if (out.status != STATUS_SUCCESS) {
                EXPECT_EQ(out.information, 0u);
            }
            EXPECT_EQ(CheckMaps(v), "") << n;
            EXPECT_EQ(host::CountLeaks().memory.lockedMdls, 0) << n;
        }
    }
    host::ResetAssertionCount();  // a buffer that cannot be mapped asserts
}

// Writers over overlapping ranges and readers, with transfers that pend: afterwards each sector is one of the
// writes that covered it.
TEST_F(SectorIo, OverlappingWritesNeverMixSectors) {
    disk_->PendAlways(true);
    constexpr int kWriters = 3;
    constexpr ULONG kSectors = 24;
    std::vector<std::thread> threads;
    for (int t = 0; t < kWriters; ++t)
        threads.emplace_back([this, t] {
            std::mt19937 random(t + 1);
            for (int i = 0; i < 60; ++i) {
                const ULONG first = random() % kSectors;
                const ULONG count = 1 + random() % (kSectors - first);
                std::vector<std::uint8_t> data(count * S, static_cast<std::uint8_t>(1 + t * 60 + i));
                EXPECT_EQ(Write((100 + first) * S, data), STATUS_SUCCESS);
                std::vector<std::uint8_t> back(count * S);
                EXPECT_EQ(Send(IRP_MJ_READ, (100 + first) * S, back.data(), back.size()).status,
                          STATUS_SUCCESS);
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(CheckMaps(v), "");
    const auto data = Read(100 * S, kSectors * S);
    for (ULONG s = 0; s < kSectors; ++s) {
        EXPECT_TRUE(std::all_of(data.begin() + s * S, data.begin() + (s + 1) * S,
                                [&](std::uint8_t b) { return b == data[s * S]; }))
            << "sector " << s << " is mixed";
    }
}

}  // namespace
}  // namespace support
