// Faults within one request to a protected volume. A request that fails leaves each of its sectors old or new,
// one that succeeds has written them all; only a redirection whose record finds no memory is lost, and its
// range then shows the volume's own sectors. Except for want of memory no swap space is lost.
#include "platform/host/io/device.h"
#include "platform/host/check/injector.h"
#include "platform/host/io/request.h"
#include "swap/swap_file.h"
#include "redirect/write_cache.h"
#include "swap/chunk_maps.h"
#include "tests/exhaustion/fault_sweep.h"

namespace {

using namespace exhaustion;

constexpr std::uint64_t kNewStamp = 7'000'000;

// The sectors that a scenario writes.
struct Range {
    std::uint64_t first = 0, count = 0;
    bool Holds(std::uint64_t sector) const { return sector >= first && sector - first < count; }
};

std::uint64_t Before(std::uint64_t sector) {
    return IsKept(sector) ? KeptStamp(sector) : FixedStamp(sector);
}

void Start(ProtectedComputer& computer) {
    PowerOn(computer);
    // The first write of a boot saves the map; that is a scenario of its own.
    EXPECT_EQ(STATUS_SUCCESS, WriteStamps(computer, 1000, 1, FixedStamp(1000)));
}

class RequestFaults : public testing::Test {
protected:
    static std::int64_t SwapTotal(ProtectedComputer& computer) { return computer.Status().SwapTotalBytes; }

    void SweepWrite(const char* name, Range range, unsigned least,
                    std::function<void(ProtectedComputer&)> prepare = Start) {
        NTSTATUS status = STATUS_PENDING;
        Scenario scenario{name, &ProtectedImage(), std::move(prepare), {}, {}};
        scenario.operate = [&](ProtectedComputer& computer) {
            status = WriteStamps(computer, range.first, range.count, kNewStamp + range.first);
        };
        scenario.verify = [&](ProtectedComputer& computer, const Injected& injected) {
            ExpectOutcome(computer, range, status, injected);
        };
        EXPECT_GE(Sweep(scenario), least);
    }

    static void ExpectOutcome(ProtectedComputer& computer, Range range, NTSTATUS status,
                              const Injected& injected) {
        if (injected.kind == host::Fault::Count) {
            EXPECT_EQ(STATUS_SUCCESS, status);
        }
        EXPECT_NE(STATUS_PENDING, status);
        View(computer, [&](std::uint64_t s) -> std::vector<std::uint64_t> {
            if (!range.Holds(s)) return {Before(s)};
            if (!NT_SUCCESS(status)) return {kNewStamp + s, Before(s)};
            if (injected.IsMemory() && !IsKept(s)) return {kNewStamp + s, FixedStamp(s)};
            return {kNewStamp + s};
        });
        ExpectMediumUnchanged(computer);
        const auto total = SwapTotal(computer);
        EXPECT_GE(static_cast<std::int64_t>(kSwapBytes), total);
        if (!injected.IsMemory()) {
            EXPECT_EQ(static_cast<std::int64_t>(kSwapBytes), total);
        }
        ExpectSound("after the reads");
        // What failed for once works now.
        EXPECT_EQ(STATUS_SUCCESS, WriteStamps(computer, range.first, range.count, kNewStamp + range.first));
        View(computer, [&](std::uint64_t s) -> std::vector<std::uint64_t> {
            return {range.Holds(s) ? kNewStamp + s : Before(s)};
        });
        computer.Hardware().Shutdown();
    }
};

TEST_F(RequestFaults, Writes) {
    SweepWrite("first write", {200, 8}, 8);
    SweepWrite("first write over several chunks", {200, 160}, 30);
    SweepWrite("overwrite", {102, 8}, 5);
    SweepWrite("write over several runs", {90, 100}, 20);
    SweepWrite("write with a map save", {200, 8}, 10, PowerOn);
}

TEST_F(RequestFaults, RedirectedRead) {
    NTSTATUS status = STATUS_PENDING;
    std::vector<std::uint8_t> data;
    Scenario scenario{"redirected read", &ProtectedImage(), Start, {}, {}};
    scenario.operate = [&](ProtectedComputer& computer) {
        data.assign(100 * 512, 0xEE);
        status = Transfer(computer, IRP_MJ_READ, 90, data);
    };
    scenario.verify = [&](ProtectedComputer& computer, const Injected& injected) {
        EXPECT_TRUE(NT_SUCCESS(status) || injected.kind != host::Fault::Count);
        for (std::uint64_t s = 90; NT_SUCCESS(status) && s < 190; ++s)
            ASSERT_TRUE(SectorHolds(&data[(s - 90) * 512], 512, Before(s))) << "sector " << s;
        View(computer, [](std::uint64_t s) { return std::vector<std::uint64_t>{Before(s)}; });
    };
    EXPECT_GE(Sweep(scenario), 10u);
}

// ---- the write cache -------------------------------------------------------------------------------------

constexpr Range kQueued{400, 16}, kLater{500, 16};

// A write waits in the queue for want of space.
void StartWithQueue(ProtectedComputer& computer) {
    Start(computer);
    PVOLUME_EXTENSION volume = DataVolume(computer);
    ASSERT_TRUE(volume && volume->SwapFile);
    std::vector<std::uint8_t> data(kQueued.count * 512);
    for (std::uint64_t i = 0; i < kQueued.count; ++i)
        FillSector(&data[i * 512], 512, kNewStamp + kQueued.first + i);
    LARGE_INTEGER offset;
    offset.QuadPart = static_cast<LONGLONG>(kRegion + kQueued.first * 512);
    EXPECT_EQ(STATUS_SUCCESS, AddBufferToCache(volume, &offset, data.data(), static_cast<ULONG>(data.size())));
    volume->SwapFile.load()->ulFreeBytes = 0;
}

void GiveSpaceBack(ProtectedComputer& computer) {
    PVOLUME_EXTENSION volume = DataVolume(computer);
    FastMutexLock lock(volume->SwapLock);
    MirrorFreeBytes(volume);
}

TEST_F(RequestFaults, WriteThatJoinsTheQueue) {
    NTSTATUS status = STATUS_PENDING;
    Scenario scenario{"queued write", &ProtectedImage(), StartWithQueue, {}, {}};
    scenario.operate = [&](ProtectedComputer& computer) {
        status = WriteStamps(computer, kLater.first, kLater.count, kNewStamp + kLater.first);
        GiveSpaceBack(computer);
    };
    scenario.verify = [&](ProtectedComputer& computer, const Injected& injected) {
        EXPECT_TRUE(NT_SUCCESS(status) || injected.kind != host::Fault::Count);
        EXPECT_EQ(STATUS_SUCCESS, computer.Hardware().Flush(kDataVolume));
        EXPECT_TRUE(IsWriteCacheEmpty(DataVolume(computer)->SwapFile));
        View(computer, [&](std::uint64_t s) -> std::vector<std::uint64_t> {
            if (kQueued.Holds(s) || (kLater.Holds(s) && NT_SUCCESS(status))) return {kNewStamp + s};
            return {Before(s)};
        });
        ExpectMediumUnchanged(computer);
        ExpectSound("after the flush");
    };
    EXPECT_GE(Sweep(scenario), 3u);
}

// A queued write was accepted long ago: one that fails now is lost, sector by sector old or new, and goes.
TEST_F(RequestFaults, FlushOfTheQueue) {
    Scenario scenario{"flush", &ProtectedImage(), {}, {}, {}};
    scenario.prepare = [](ProtectedComputer& computer) {
        StartWithQueue(computer);
        GiveSpaceBack(computer);
    };
    scenario.operate = [](ProtectedComputer& computer) {
        KVR_DISCARD(computer.Hardware().Flush(kDataVolume), "the disk's own flush may be what fails");
    };
    scenario.verify = [](ProtectedComputer& computer, const Injected& injected) {
        EXPECT_TRUE(IsWriteCacheEmpty(DataVolume(computer)->SwapFile));
        View(computer, [&](std::uint64_t s) -> std::vector<std::uint64_t> {
            if (!kQueued.Holds(s)) return {Before(s)};
            if (injected.kind == host::Fault::Count) return {kNewStamp + s};
            return {kNewStamp + s, Before(s)};
        });
        ExpectMediumUnchanged(computer);
        if (!injected.IsMemory()) {
            EXPECT_EQ(static_cast<std::int64_t>(kSwapBytes), SwapTotal(computer));
        }
    };
    EXPECT_GE(Sweep(scenario), 5u);
}

// ---- shutdown --------------------------------------------------------------------------------------------

// A save that fails leaves an older map, or one that is found damaged: each sector shows what was written to it
// or, from the next boot on, its own content.
TEST_F(RequestFaults, ShutdownWithMapSave) {
    constexpr Range written{300, 32};
    Scenario scenario{"shutdown", &ProtectedImage(), {}, {}, {}};
    scenario.prepare = [&](ProtectedComputer& computer) {
        Start(computer);
        EXPECT_EQ(STATUS_SUCCESS,
                  WriteStamps(computer, written.first, written.count, kNewStamp + written.first));
    };
    scenario.operate = [](ProtectedComputer& computer) {
        EXPECT_EQ(STATUS_SUCCESS, host::Send(TopDevice(computer), {.major = IRP_MJ_SHUTDOWN}).status);
    };
    scenario.verify = [&](ProtectedComputer& computer, const Injected& injected) {
        computer.Hardware().Shutdown();
        ASSERT_NO_FATAL_FAILURE(PowerOn(computer));
        View(computer, [&](std::uint64_t s) -> std::vector<std::uint64_t> {
            const std::uint64_t now = written.Holds(s) ? kNewStamp + s : Before(s);
            return injected.kind == host::Fault::Count ? std::vector{now} : std::vector{now, FixedStamp(s)};
        });
        ExpectMediumUnchanged(computer);
        ExpectSound("in the next boot");
    };
    EXPECT_GE(Sweep(scenario), 5u);
}

// ---- device control --------------------------------------------------------------------------------------

TEST_F(RequestFaults, DeviceControl) {
    Scenario scenario{"device control", &ProtectedImage(), Start, {}, {}};
    std::vector<NTSTATUS> answers, expected;
    scenario.operate = [&](ProtectedComputer& computer) {
        std::vector<std::uint8_t> output(KVR_CONFIG_BYTES);
        SCSI_PASS_THROUGH command{};
        command.Cdb[0] = 0x2A;
        answers.clear();
        for (const ULONG code : {IOCTL_DISK_IS_WRITABLE, IOCTL_DISK_GET_DRIVE_LAYOUT,
                                 IOCTL_DISK_SET_DRIVE_LAYOUT, IOCTL_DISK_GROW_PARTITION, FSCTL_MOVE_FILE,
                                 IOCTL_SCSI_PASS_THROUGH, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS})
            answers.push_back(host::SendControl(TopDevice(computer), {.code = code,
                                                                      .input = &command,
                                                                      .inputLength = sizeof(command),
                                                                      .output = output.data(),
                                                                      .outputLength = 1024})
                                  .status);
        for (const ULONG code : {IOCTL_KVR_GET_CONFIG, IOCTL_KVR_GET_FIXED_VOLUMES,
                                 IOCTL_KVR_GET_REMOVABLE_VOLUMES, IOCTL_KVR_DEBUG, IOCTL_KVR_STOP_SWAP_THREAD})
            KVR_DISCARD(computer.Control(code, nullptr, 0, output.data(), KVR_CONFIG_BYTES),
                        "any status will do");
        KVR_DISCARD(computer.Control(IOCTL_KVR_GET_ENABLED, nullptr, 0, output.data(), 4), "likewise");
        // Refused while the volume is protected.
        EXPECT_FALSE(NT_SUCCESS(computer.Provision(kSwapBytes)));
        EXPECT_FALSE(NT_SUCCESS(computer.RemoveStorage()));
    };
    scenario.verify = [&](ProtectedComputer& computer, const Injected&) {
        if (expected.empty()) expected = answers;
        EXPECT_EQ(expected, answers) << "a refusal does not depend on memory";
        EXPECT_EQ(Configuration{.bootMode = 1}.Text(), computer.GetConfig());
        EXPECT_EQ(2u, computer.Status().State);
    };
    EXPECT_GE(Sweep(scenario), 2u);
    EXPECT_EQ(STATUS_MEDIA_WRITE_PROTECTED, expected.at(2));
    EXPECT_EQ(STATUS_ACCESS_DENIED, expected.at(5));
}

// Written, or not written: a failed request leaves no text in pieces behind that differ otherwise.
TEST_F(RequestFaults, ConfigurationWrittenAgain) {
    const Configuration older{.bootMode = 1}, newer{.bootMode = 1, .extra = u"[FV other]\r\nID=other\r\n"};
    NTSTATUS status = STATUS_PENDING;
    Scenario scenario{"set configuration", &ProtectedImage(), Start, {}, {}};
    scenario.operate = [&](ProtectedComputer& computer) { status = computer.SetConfig(newer); };
    scenario.verify = [&](ProtectedComputer& computer, const Injected&) {
        const std::u16string text = computer.GetConfig();
        if (NT_SUCCESS(status))
            EXPECT_EQ(newer.Text(), text);
        else
            EXPECT_TRUE(text == newer.Text() || text == older.Text());
        ExpectSound("after reading it");
        EXPECT_EQ(STATUS_SUCCESS, computer.SetConfig(newer));
        EXPECT_EQ(newer.Text(), computer.GetConfig());
    };
    EXPECT_GE(Sweep(scenario), 16u);
}

TEST_F(RequestFaults, ConfigurationWrittenFirst) {
    NTSTATUS status = STATUS_PENDING;
    Scenario scenario{"first configuration", &UnconfiguredImage(), PowerOn, {}, {}};
    scenario.operate = [&](ProtectedComputer& computer) { status = computer.SetConfig({}); };
    scenario.verify = [&](ProtectedComputer& computer, const Injected&) {
        if (!NT_SUCCESS(status)) status = computer.SetConfig({});
        EXPECT_EQ(STATUS_SUCCESS, status) << "what failed for once works now";
        EXPECT_EQ(Configuration{}.Text(), computer.GetConfig());
        ExpectSound("after writing it");
    };
    EXPECT_GE(Sweep(scenario), 4u);
}

}  // namespace
