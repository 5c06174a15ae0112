// The transfers of redirected requests: what reaches the devices, what the caller gets, whatever goes wrong.
#include <algorithm>
#include <atomic>
#include <thread>
#include "driver/record/sector_io.h"
#include "tests/support/loaded_driver.h"

namespace {

class SectorIo : public LoadedDriver {
protected:
    void SetUp() override {
        LoadedDriver::SetUp();
        Protect(0);
        AddFree(1ll << 40, 0x4000000);  // only the tests of the gate meet the low-space limit
        AddFree(kSwap, 2 << 20);
    }
    NTSTATUS Put(LONGLONG offset, const Bytes& data) { return Write(volume, offset, data).status; }
    host::Outcome Get(LONGLONG offset, Bytes& data) { return Send(volume, IRP_MJ_READ, offset, data); }
    static NTSTATUS Refuse(bool refused) { return refused ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS; }
};

TEST_F(SectorIo, NothingUndefinedIsRead) {
    ASSERT_EQ(STATUS_SUCCESS, Put(100 * S, Data(2 * S, 1)));
    host::SetPoolOptions({.fill = true});
    device->verdict = [](const auto& t) { return Refuse(!t.isWrite && t.offset == 102 * S); };
    Bytes data(4 * S + 10, 0xEE);
    const host::Outcome read = Get(100 * S, data);
    EXPECT_EQ(STATUS_IO_DEVICE_ERROR, read.status);
    EXPECT_EQ(0u, read.information);
    Bytes expected = Data(2 * S, 1);
    expected.resize(4 * S + 10);
    EXPECT_EQ(expected, data);
    // A device that delivers less than was asked for.
    device->verdict = nullptr;
    device->shortBy = 100;
    std::ranges::fill(data, 0xEE);
    EXPECT_EQ(4 * S - 200, Get(100 * S, data).information);
    std::fill_n(expected.begin() + 2 * S - 100, 100, 0);
    std::ranges::copy(OnDisk(102 * S, 2 * S - 100), expected.begin() + 2 * S);
    EXPECT_EQ(expected, data);
    device->shortBy = 0;
    device->verdict = [&](const auto& t) { return Refuse(!t.isWrite); };
    std::ranges::fill(data, 0xEE);
    EXPECT_EQ(STATUS_IO_DEVICE_ERROR, Get(100 * S, data).status);
    EXPECT_EQ(Bytes(data.size()), data);
    host::SetPoolOptions({});
}

TEST_F(SectorIo, RequestsThatNoVolumeCanServeAreRefused) {
    constexpr LONGLONG last = 0x7FFFFFFFFFFFFFFF;
    const struct {
        UCHAR major;
        LONGLONG offset;
        ULONG unit;
        NTSTATUS status;
    } cases[] = {
        {IRP_MJ_WRITE, 100 * S + 8, S, STATUS_INVALID_PARAMETER},
        {IRP_MJ_WRITE, -LONGLONG{S}, S, STATUS_INVALID_PARAMETER},
        {IRP_MJ_READ, -LONGLONG{S}, S, STATUS_INVALID_PARAMETER},
        {IRP_MJ_READ, last - 2 * S + 1, S, STATUS_INVALID_PARAMETER},
        {IRP_MJ_WRITE, 100 * S, 0, STATUS_DEVICE_NOT_READY},
        {IRP_MJ_READ, 100 * S, 0, STATUS_DEVICE_NOT_READY},
    };
    Redirect(last - 2 * S - (S - 1), kSwap + 0x100000, S);  // so that a read there is the driver's own
    Attach();
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        Bytes data(2 * S, 1);
        volume->BytesPerSector = c.unit;
        EXPECT_EQ(c.status, Send(volume, c.major, c.offset, data).status);
        volume->BytesPerSector = S;
    }
    device->TakeTransfers();
    for (const UCHAR major : {IRP_MJ_READ, IRP_MJ_WRITE}) {
        Bytes nothing;
        const host::Outcome outcome = Send(volume, major, 100 * S, nothing);
        EXPECT_EQ(STATUS_SUCCESS, outcome.status);
        EXPECT_EQ(0u, outcome.information);
    }
    ForgetMaps();
}

// Buffers as requests may bring them: locked, to be locked, that cannot be locked or are not there.
TEST_F(SectorIo, EveryKindOfBuffer) {
    using host::Pages;
    constexpr NTSTATUS raised = STATUS_ACCESS_VIOLATION, missing = STATUS_INVALID_PARAMETER;
    ASSERT_EQ(STATUS_SUCCESS, Put(100 * S, Data(4 * S, 1)));
    const struct {
        bool associated;
        Pages master, own;
        NTSTATUS status;
    } cases[] = {
        {false, Pages::Locked, Pages::Locked, 0},    {false, Pages::Locked, Pages::Unlocked, 0},
        {false, Pages::Locked, Pages::NonPaged, 0},  {false, Pages::Locked, Pages::Partial, 0},
        {false, Pages::Locked, Pages::Bad, raised},  {false, Pages::Locked, Pages::None, missing},
        {true, Pages::Locked, Pages::Partial, 0},    {true, Pages::Unlocked, Pages::Unlocked, 0},
        {true, Pages::Unlocked, Pages::Bad, raised}, {true, Pages::Bad, Pages::Locked, raised},
        {true, Pages::None, Pages::Unlocked, 0},
    };
    const PoolPtr<UCHAR> block = NewBuffer(4 * S);
    for (const auto& c : cases) {
        for (const UCHAR major : {IRP_MJ_WRITE, IRP_MJ_READ}) {
            SCOPED_TRACE(std::to_string(&c - cases) + (major == IRP_MJ_READ ? " read" : " write"));
            const Bytes seen = Read(98 * S, 8 * S), fresh = Data(4 * S, 10 + static_cast<int>(&c - cases));
            std::ranges::copy(fresh, block.Get());
            const host::Outcome outcome = host::Send(volume->FilterDevice, {.major = major,
                                                                            .pages = c.own,
                                                                            .associated = c.associated,
                                                                            .masterPages = c.master,
                                                                            .length = 4 * S,
                                                                            .offset = 98 * S,
                                                                            .buffer = block.Get()});
            EXPECT_EQ(c.status, outcome.status);
            EXPECT_EQ(c.status == 0 ? 4 * S : 0, outcome.information);
            const bool written = major == IRP_MJ_WRITE && c.status == 0;
            EXPECT_EQ(written ? fresh : Bytes(seen.begin(), seen.begin() + 4 * S), Read(98 * S, 4 * S));
            if (major == IRP_MJ_READ && c.status == 0) {
                EXPECT_EQ(0, std::memcmp(block.Get(), seen.data(), 4 * S));
            }
        }
    }
    EXPECT_EQ(2u, host::AssertionCount()) << "pages that are not there";
    host::ResetAssertionCount();
}

// Another volume's storage: that device moves the data, and may leave again when it is done.
TEST_F(SectorIo, StorageOnAnotherVolume) {
    FilteredStack& other = AddStarted({.name = u"\\Device\\Elsewhere"});
    Attach(u"\\Device\\Elsewhere", volume);
    const Bytes before = device->data;
    ASSERT_EQ(STATUS_SUCCESS, Put(100 * S, Data(2 * S, 1)));
    EXPECT_EQ(Data(2 * S, 1), Read(100 * S, 2 * S));
    EXPECT_EQ(before, device->data);
    EXPECT_EQ(0, std::memcmp(&other.data[kSwap], Data(2 * S, 1).data(), 2 * S));
    EXPECT_EQ(STATUS_SUCCESS, host::SendPnp(other.pdo.object, IRP_MN_REMOVE_DEVICE)) << "no hold is left";
    EXPECT_EQ(1u, volume->SwapFile.load()->ulRefCount.load());
    Bytes data(2 * S);
    for (const UCHAR major : {IRP_MJ_READ, IRP_MJ_WRITE})
        EXPECT_EQ(STATUS_NO_SUCH_DEVICE, Send(volume, major, 100 * S, data).status);
    EXPECT_EQ(before, device->data);
}

TEST_F(SectorIo, AWriteWithoutAWholeSectorNeedsItsBufferAllTheSame) {
    for (const ULONG length : {0u, 1u}) {
        Bytes data(length, 1);
        host::FailCall(host::FaultBit(host::Fault::MapPages), 1);
        const NTSTATUS status = Send(volume, IRP_MJ_WRITE, 100 * S, data).status;
        host::DisarmFaults();
        EXPECT_EQ(length == 0 ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER, status);
        EXPECT_EQ(length, host::AssertionCount());
    }
    host::ResetAssertionCount();
    EXPECT_EQ(STATUS_SUCCESS, Put(100 * S, Bytes(1)));
}

// Another write gets to the map between the cut of this one and its turn.
TEST_F(SectorIo, AWriteThatIsOvertakenUsesTheOthersSpace) {
    // [100, 102) new, [102, 104) in place, [104, 120) found free by the cut, [120, 122) in place, [122, 126)
    // free.
    ForgetMaps();
    AddFree(1ll << 40, 0x4000000);
    AddFree(kSwap, 64 * S);
    Redirect(102 * S, kSwap + 100 * S, 2 * S);
    Redirect(120 * S, kSwap + 110 * S, 2 * S);
    Bytes data = Data(26 * S, 5);
    const Bytes written = data;
    int calls = 0;
    device->verdict = [&](const auto&) {
        if (++calls == 1) {
            Redirect(108 * S, kSwap + (1 << 20), 4 * S);           // inside this write's second run
            Redirect(104 * S, kSwap + (1 << 20) + 8 * S, 2 * S);   // where it begins
            Redirect(122 * S, kSwap + (1 << 20) + 16 * S, 4 * S);  // all of the last one
            std::ranges::fill(data, 0);  // the writer changes its buffer: the data is what it was at the start
        }
        return STATUS_SUCCESS;
    };
    ASSERT_EQ(STATUS_SUCCESS, Send(volume, IRP_MJ_WRITE, 100 * S, data).status);
    Bytes seen = Read(100 * S, 26 * S);
    // The stretch in the middle keeps the other write's space, which that write (only its commit was played)
    // has not filled; all else is this write's data.
    std::copy(written.begin() + 8 * S, written.begin() + 12 * S, seen.begin() + 8 * S);
    EXPECT_EQ(written, seen);
}

TEST_F(SectorIo, AFlushIsTheDevicesAndWaitedFor) {
    const struct {
        NTSTATUS answer, status;
    } cases[] = {{STATUS_SUCCESS, STATUS_SUCCESS},
                 {STATUS_IO_DEVICE_ERROR, STATUS_IO_DEVICE_ERROR},
                 {STATUS_INVALID_DEVICE_REQUEST, STATUS_SUCCESS},
                 {STATUS_NOT_SUPPORTED, STATUS_SUCCESS},
                 {STATUS_NOT_IMPLEMENTED, STATUS_SUCCESS}};
    for (const auto& c : cases) {
        int flushes = 0;
        device->onFlush = [&] { return ++flushes, c.answer; };
        EXPECT_EQ(c.status, FlushDevice(volume->Target));
        EXPECT_EQ(1, flushes);
    }
    host::FailCall(host::FaultBit(host::Fault::BuildRequest), 1);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, FlushDevice(volume->Target));
}

// The write's own space may take the rest below the limit: the gate is asked once, for the run, and not again
// for each piece that the space came in.
TEST_F(SectorIo, TheLowSpaceGateIsAskedOncePerRun) {
    ForgetMaps();
    for (int i = 0; i < 3; ++i) AddFree(kSwap + i * 8 * S, 4 * S);
    AddFree(1ll << 40, 0x3000000 - 10 * S);  // two sectors above the limit in all
    TestFile file(u"\\report.doc");
    const Bytes data = Data(12 * S, 1);
    EXPECT_EQ(STATUS_SUCCESS, Write(volume, 100 * S, data, &file.object).status);
    EXPECT_EQ(data, Read(100 * S, 12 * S));
    EXPECT_EQ(STATUS_MEDIA_WRITE_PROTECTED, Write(volume, 200 * S, data, &file.object).status);
}

// Has a device keep the transfers that come until the test ends them, in whatever order.
class HeldTransfers {
public:
    // `refused`: the number of the one that fails at once.
    explicit HeldTransfers(FilteredStack& device, int refused = 0) : m_device(device) {
        device.answer = [this, refused](PIRP irp, PIO_STACK_LOCATION) {
            if (++m_came == refused) return stub::Complete(irp, STATUS_IO_DEVICE_ERROR);
            IoMarkIrpPending(irp);
            const std::lock_guard lock(m_lock);
            m_held.push_back(irp);
            return STATUS_PENDING;
        };
    }
    ~HeldTransfers() { m_device.answer = nullptr; }
    std::vector<PIRP> Take(std::size_t count) {
        for (;; std::this_thread::yield()) {
            const std::lock_guard lock(m_lock);
            EXPECT_LE(m_held.size(), count);
            if (m_held.size() >= count) return std::exchange(m_held, {});
        }
    }
    void End(PIRP irp, NTSTATUS status = STATUS_SUCCESS) {
        KVR_DISCARD(status == STATUS_SUCCESS ? m_device.Serve(irp) : stub::Complete(irp, status),
                    "the sender gets it");
    }

private:
    FilteredStack& m_device;
    std::mutex m_lock;
    std::vector<PIRP> m_held;
    std::atomic<int> m_came{0};
};

TEST_F(SectorIo, ATransferIsWaitedForThoughItsEventTellsOfAnother) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, TRUE);
    IO_STATUS_BLOCK block{};
    const LARGE_INTEGER at = Large(100 * S);
    Bytes data(S);
    HeldTransfers held(*device);
    std::thread ends([&] { held.End(held.Take(1)[0]); });
    EXPECT_EQ(STATUS_SUCCESS,
              TransferSectors(IRP_MJ_READ, volume->Target, data.data(), S, &at, &block, &event));
    EXPECT_EQ(S, block.Information);
    ends.join();
}

// Above a device that takes its time a request has 32 of its runs under way, whichever ends first; the list's
// first failure is the request's, and nothing begins once one is known.
TEST_F(SectorIo, RunsAreUnderWayTogether) {
    constexpr ULONG kRuns = 80, kAtOnce = 32;
    const auto sendHeld = [&](UCHAR major, Bytes& data, bool fails) {
        HeldTransfers held(*device);
        host::Outcome outcome;
        std::thread sender([&] { outcome = Send(volume, major, 100 * S, data); });
        for (ULONG left = kRuns, count; left > 0; left = fails ? 0 : left - count) {
            count = std::min(left, kAtOnce);
            const std::vector<PIRP> irps = held.Take(count);
            const ULONG64 used = Used();
            for (ULONG i = count; i-- > 0;) {
                EXPECT_EQ(used, Used()) << "nothing is recorded before everything is written";
                held.End(irps[i], !fails || (i != 3 && i != 20) ? STATUS_SUCCESS
                                  : i == 3                      ? STATUS_DEVICE_BUSY
                                                                : STATUS_IO_DEVICE_ERROR);
            }
        }
        sender.join();
        EXPECT_EQ(fails ? STATUS_DEVICE_BUSY : STATUS_SUCCESS, outcome.status);
        EXPECT_EQ(fails ? 0 : kRuns * S, outcome.information);
    };
    // Every second sector lies somewhere in the swap, so each is a run of its own, and so is each that is new:
    // its free space comes in single sectors.
    ForgetMaps();
    AddFree(1ll << 40, 0x4000000);
    for (ULONG i = 0; i < kRuns; i += 2) Redirect((100 + i) * S, kSwap + (1 << 20) + i * S, S);
    for (ULONG i = 0; i < kRuns; ++i) AddFree(kSwap + 2 * i * S, S);
    Bytes data = Data(kRuns * S, 1), seen(kRuns * S, 0xEE);
    const FreeList free = FreeSpace();
    const ULONG64 used = Used();
    sendHeld(IRP_MJ_WRITE, data, true);
    EXPECT_EQ(free, FreeSpace());
    EXPECT_EQ(used, Used());
    sendHeld(IRP_MJ_WRITE, data, false);
    EXPECT_EQ(kRuns * S, Used());
    sendHeld(IRP_MJ_READ, seen, false);
    EXPECT_EQ(data, seen);
    sendHeld(IRP_MJ_READ, seen, true);
    std::fill(data.begin() + 3 * S, data.end(), 0);
    EXPECT_EQ(data, seen);
    {
        // A failure that is known while earlier ones are under way: nothing else begins.
        HeldTransfers held(*device, 5);
        std::thread sender([&] { EXPECT_EQ(STATUS_IO_DEVICE_ERROR, Get(100 * S, seen).status); });
        for (PIRP irp : held.Take(4)) held.End(irp);
        sender.join();
    }
    ForgetMaps();
}

}  // namespace
