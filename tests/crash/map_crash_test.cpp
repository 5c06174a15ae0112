// The power fails while the map is saved, and while a boot gives the redirections up or merges them. The
// storage lies in small pieces, so that the map has many entries and takes several runs of its file.
#include <cstring>
#include "platform/host/sync/clock.h"
#include "tests/crash/crash_sweep.h"

namespace {

using namespace crash;

constexpr std::uint64_t kFirst = 100, kSecond = 200, kThird = 300;  // where the writes lie, in sectors
constexpr std::uint64_t kCount = 24;                                // sectors of each
constexpr std::uint64_t kSpan = 400;                                // sectors that are looked at

// What a sector may show: its own content, and what was written to it last.
struct Written {
    std::uint64_t sector, stamp;
};

// Expects each sector to hold the volume's own stamp or that of the write that covers it; returns how many hold
// a write's.
unsigned ExpectOwnOrWritten(const std::vector<std::uint8_t>& data, const std::vector<Written>& writes) {
    unsigned redirected = 0;
    for (std::uint64_t s = 0; s < kSpan; ++s) {
        SCOPED_TRACE("sector " + std::to_string(s));
        std::vector<std::uint64_t> stamps{FixedStamp(s)};
        for (const Written& write : writes)
            if (s >= write.sector && s < write.sector + kCount)
                stamps.push_back(write.stamp + s - write.sector);
        redirected += StampAmong(&data[s * 512], stamps) != stamps[0];
    }
    return redirected;
}

// The one-shot fields of the configuration are written back at the first write.
void BootAndWrite(ProtectedComputer& computer) {
    KVR_DISCARD(computer.Hardware().PowerOn(), "a boot without power comes to nothing");
    std::vector<std::uint8_t> sector(512, 0x77);
    KVR_DISCARD(computer.Hardware().Write(kSystemVolume, kSystemRegion, sector.data(), 512),
                "fails when the power does");
}

class MapCrash : public testing::Test {
protected:
    // Protected, with two writes in the saved map.
    void Start(const Configuration& configuration, const ComputerOptions& options, std::uint64_t swapBytes) {
        auto computer = StampedComputer(options);
        computer->Install(configuration, swapBytes);
        PowerOn(*computer);
        WriteStamps(*computer, kFirst, kCount, 1000);
        WriteStamps(*computer, kSecond, kCount, 2000);
        computer->Hardware().Shutdown();
        start = computer->Capture();
        own.Learn(*computer);
        merged = own;
        merged.LearnRegion(*computer, kFirst, kCount);
        merged.LearnRegion(*computer, kSecond, kCount);
    }
    void ExpectUsable(ProtectedComputer& computer, bool keeps) {
        worked += crash::ExpectUsable(computer, keeps) == Storage::Works;
        own.Learn(computer);
    }

    // Cut at every write, torn ones too; the storage must be found working after some of the cuts.
    void SweepCuts(Scenario scenario) {
        scenario.start = &start;
        scenario.kept = {0, 1, 5};
        EXPECT_GE(Sweep(scenario), 3u * 8);
        EXPECT_GE(worked, 3u);
    }

    ComputerImage start;
    OwnSectors own, merged;  // what may change, without a merge and by one
    unsigned worked = 0;
};

// A cut save leaves the new map, the old one, or one that is found damaged. In no case does a sector show
// anything but its own content or what was written to it last.
class SaveCrash : public MapCrash {
protected:
    void SweepSave(const char* name, std::function<void(ProtectedComputer&)> prepare,
                   std::function<void(ProtectedComputer&)> operate) {
        Start({.bootMode = 1}, SmallOptions(4 * kKiB, 4 * kKiB), kSwapBytes);
        Scenario scenario{.name = name, .operate = operate};
        scenario.prepare = [=](ProtectedComputer& computer) {
            PowerOn(computer);
            WriteStamps(computer, kSecond, kCount, 3000);  // in place; a save is due and has nothing to save
            // Between the two older ranges, so that the entries behind it move.
            WriteStamps(computer, kFirst + kCount + 10, kCount, 4000);
            prepare(computer);
        };
        scenario.check = [&](ProtectedComputer& computer, const CutPoint& cut) { Check(computer, cut); };
        SweepCuts(scenario);
    }
    void Check(ProtectedComputer& computer, const CutPoint& cut) {
        ASSERT_NO_FATAL_FAILURE(own.ExpectOthersUnchanged(start, computer));
        ASSERT_NO_FATAL_FAILURE(PowerOn(computer));
        const std::vector<Written> writes{
            {kFirst, 1000}, {kSecond, 3000}, {kFirst + kCount + 10, 4000}, {kThird, 5000}};
        const unsigned redirected = ExpectOwnOrWritten(ReadSectors(computer, 0, kSpan), writes);
        if (cut.nth == 1 && cut.kept == 0) {
            EXPECT_LE(2 * kCount, redirected) << "the save destroyed the map before it wrote";
        }
        ExpectUsable(computer, true);
        own.ExpectOthersUnchanged(start, computer);
    }
};

TEST_F(SaveCrash, AtShutdown) {
    SweepSave(
        "save at shutdown", [](ProtectedComputer&) {},
        [](ProtectedComputer& computer) { computer.Hardware().Shutdown(); });
}

TEST_F(SaveCrash, WhileTheVolumeIsUsed) {
    SweepSave(
        "periodic save", [](ProtectedComputer&) { host::AdvanceTime(40 * host::kTicksPerSecond); },
        [](ProtectedComputer& computer) { WriteStamps(computer, kThird, kCount, 5000); });
}

// Whatever the cut leaves of the map, the volume shows its own sectors, and they are what they were.
class DiscardCrash : public MapCrash {
protected:
    void SweepBoot(const char* name, const Configuration& afterwards) {
        Scenario scenario{.name = name, .operate = BootAndWrite};
        scenario.check = [&](ProtectedComputer& computer, const CutPoint&) {
            ASSERT_NO_FATAL_FAILURE(own.ExpectOthersUnchanged(start, computer));
            ASSERT_NO_FATAL_FAILURE(PowerOn(computer));
            EXPECT_EQ(0u, ExpectOwnOrWritten(ReadSectors(computer, 0, kSpan), {}));
            ASSERT_EQ(STATUS_SUCCESS, computer.SetConfig(afterwards));
            ExpectUsable(computer, afterwards.bootMode == 1);
            own.ExpectOthersUnchanged(start, computer);
        };
        SweepCuts(scenario);
    }
};

TEST_F(DiscardCrash, AtEveryBoot) {
    Start({}, SmallOptions(4 * kKiB, 4 * kKiB), kSwapBytes);
    SweepBoot("discard", {});
}

TEST_F(DiscardCrash, OnceWithTheConfigurationWrittenBack) {
    Start({.bootMode = 1}, SmallOptions(4 * kKiB, 4 * kKiB), kSwapBytes);
    start = Reconfigured(start, {.bootMode = 1, .bootAction = 1});
    SweepBoot("discard once", {.bootMode = 1});
}

// The map is rewritten only after every range was copied, so a merge that was cut is made up for at the next
// boot: by the map while it survives, and when it does not, there is nothing left to copy.
TEST_F(MapCrash, WhileRedirectionsAreMerged) {
    Start({.bootMode = 1}, SmallOptions(16 * kKiB, 4 * kKiB, 96 * kMiB), 56 * kMiB);
    start = Reconfigured(start, {.bootMode = 1, .bootAction = 2});
    const std::vector<Written> writes{{kFirst, 1000}, {kSecond, 2000}};
    Scenario scenario{.name = "merge", .operate = BootAndWrite};
    scenario.check = [&](ProtectedComputer& computer, const CutPoint&) {
        ASSERT_NO_FATAL_FAILURE(merged.ExpectOthersUnchanged(start, computer));
        ExpectOwnOrWritten(MediumSectors(computer, 0, kSpan), writes);
        ASSERT_NO_FATAL_FAILURE(PowerOn(computer));
        EXPECT_EQ(2 * kCount, ExpectOwnOrWritten(ReadSectors(computer, 0, kSpan), writes));
        EXPECT_EQ(2 * kCount, ExpectOwnOrWritten(MediumSectors(computer, 0, kSpan), writes));
        EXPECT_EQ(0, computer.Status().SwapUsedBytes);
        ASSERT_EQ(STATUS_SUCCESS, computer.SetConfig({.bootMode = 1}));
        ExpectUsable(computer, true);
    };
    SweepCuts(scenario);
}

}  // namespace
