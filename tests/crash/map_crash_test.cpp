// The power fails while the map is saved, and while a boot gives the redirections up or merges them. The
// storage lies in small pieces, so that the map has many entries and takes several runs of its file.
#include "platform/host/sync/clock.h"
#include "tests/crash/crash_sweep.h"

namespace {

using namespace crash;

constexpr std::uint64_t kFirst = 100, kSecond = 200;  // where the writes lie, in sectors
constexpr std::uint64_t kCount = 24;                  // sectors of each
constexpr std::uint64_t kBetween = kFirst + kCount + 10;
constexpr std::uint64_t kSpan = 400;  // sectors that are looked at

// What sectors may show besides their own content.
struct Written {
    std::uint64_t sector, stamp, count = kCount;
};

// Expects each sector to hold the volume's own stamp or that of the write that covers it; returns how many hold
// a write's.
unsigned ExpectOwnOrWritten(const std::vector<std::uint8_t>& data, const std::vector<Written>& writes) {
    unsigned redirected = 0;
    for (std::uint64_t s = 0; s < kSpan; ++s) {
        SCOPED_TRACE("sector " + std::to_string(s));
        std::vector<std::uint64_t> stamps{FixedStamp(s)};
        for (const Written& write : writes)
            if (s >= write.sector && s < write.sector + write.count)
                stamps.push_back(write.stamp + s - write.sector);
        redirected += StampAmong(&data[s * 512], stamps) != stamps[0];
    }
    return redirected;
}

// How many sectors of the write at `first` do not show the volume's own content.
unsigned Redirected(const std::vector<std::uint8_t>& data, std::uint64_t first) {
    unsigned redirected = 0;
    for (std::uint64_t s = first; s < first + kCount; ++s)
        redirected += !SectorHolds(&data[s * 512], 512, FixedStamp(s));
    return redirected;
}

bool Shows(const std::vector<std::uint8_t>& data, const Written& write) {
    std::uint64_t shown = 0;
    while (shown < write.count && SectorHolds(&data[(write.sector + shown) * 512], 512, write.stamp + shown))
        ++shown;
    return shown == write.count;
}

// The one-shot fields of the configuration are written back at the first write.
void BootAndWrite(ProtectedComputer& computer) {
    KVR_DISCARD(computer.Hardware().PowerOn(), "a boot without power comes to nothing");
    std::vector<std::uint8_t> sector(512, 0x77);
    KVR_DISCARD(computer.Hardware().Write(kSystemVolume, kSystemRegion, sector.data(), 512),
                "fails when the power does");
}

// Which rules hold, and whether the data disk's cache loses what was not flushed, in any order.
struct Ground {
    bool hardened, cached;
};

const auto kGrounds = testing::Values(Ground{false, false}, Ground{false, true}, Ground{true, true});

class MapCrash : public testing::TestWithParam<Ground> {
protected:
    // Protected, with these writes in the saved map.
    void Start(const Configuration& configuration, ComputerOptions options, std::uint64_t swapBytes,
               const std::vector<Written>& saved = {{kFirst, 1000}, {kSecond, 2000}}) {
        options.hardened = GetParam().hardened;
        options.dataCache = GetParam().cached;
        auto computer = StampedComputer(options);
        computer->Install(configuration, swapBytes);
        PowerOn(*computer);
        for (const Written& write : saved) WriteStamps(*computer, write.sector, write.count, write.stamp);
        computer->Hardware().Shutdown();
        start = computer->Capture();
        own.Learn(*computer);
        merged = own;
        for (const Written& write : saved) merged.LearnRegion(*computer, write.sector, write.count);
    }
    void ExpectUsable(ProtectedComputer& computer, bool keeps) {
        worked += crash::ExpectUsable(computer, keeps) == Storage::Works;
        own.Learn(computer);
    }

    // Cut at every write, torn ones or several subsets of the unflushed ones too; the storage must be found
    // working after some of the cuts.
    void SweepCuts(Scenario scenario, unsigned subsets = 2) {
        scenario.start = &start;
        if (GetParam().cached)
            scenario.subsets = subsets;
        else
            scenario.kept = {0, 1, 5};
        EXPECT_GE(Sweep(scenario), 2u * 8);
        EXPECT_GE(worked, 3u);
    }

    ComputerImage start;
    OwnSectors own, merged;  // what may change, without a merge and by one
    unsigned worked = 0;
};

INSTANTIATE_TEST_SUITE_P(Grounds, MapCrash, kGrounds);

// A cut save leaves the new map, the old one, or one that is found damaged; under the stricter rules never a
// third one. What was saved before is there in both maps.
class SaveCrash : public MapCrash {
protected:
    void SweepSave(const char* name, std::function<void(ProtectedComputer&)> prepare,
                   std::function<void(ProtectedComputer&)> operate,
                   std::function<void(ProtectedComputer&, const CutPoint&, bool)> check) {
        Scenario scenario{.name = name, .operate = operate};
        scenario.prepare = [=](ProtectedComputer& computer) {
            PowerOn(computer);
            WriteStamps(computer, kFirst, 1, 1000);  // in place; a save is due and has nothing to save
            prepare(computer);
        };
        scenario.check = [=, this](ProtectedComputer& computer, const CutPoint& cut) {
            ASSERT_NO_FATAL_FAILURE(own.ExpectOthersUnchanged(start, computer));
            ASSERT_NO_FATAL_FAILURE(PowerOn(computer));
            const bool works = computer.Status().State == 2;
            EXPECT_TRUE(works || cut.nth > 1) << "the save destroyed the map before it wrote";
            EXPECT_TRUE(works || cut.struck) << "the save got through";
            check(computer, cut, works);
            ExpectUsable(computer, true);
            own.ExpectOthersUnchanged(start, computer);
        };
        SweepCuts(scenario, 3);
    }
};

INSTANTIATE_TEST_SUITE_P(Grounds, SaveCrash, kGrounds);

// Of two writes, one in place and one between two older ranges, so that the entries behind it move. No sector
// shows anything but its own content or what was written to it.
TEST_P(SaveCrash, AtShutdown) {
    Start({.bootMode = 1}, SmallOptions(4 * kKiB, 4 * kKiB), kSwapBytes);
    SweepSave(
        "save at shutdown",
        [](ProtectedComputer& computer) {
            WriteStamps(computer, kSecond, kCount, 3000);
            WriteStamps(computer, kBetween, kCount, 4000);
        },
        [](ProtectedComputer& computer) { computer.Hardware().Shutdown(); },
        [](ProtectedComputer& computer, const CutPoint& cut, bool works) {
            const auto shown = ReadSectors(computer, 0, kSpan);
            ExpectOwnOrWritten(shown, {{kFirst, 1000}, {kSecond, 2000}, {kSecond, 3000}, {kBetween, 4000}});
            EXPECT_EQ(works ? 2 * kCount : 0, Redirected(shown, kFirst) + Redirected(shown, kSecond));
            const unsigned newer = Redirected(shown, kBetween);
            EXPECT_TRUE(newer == kCount || (newer == 0 && cut.struck)) << newer;
        });
}

// The new range's entries take the places of those of the space that it takes, on both sides of the boundary
// between two runs: nothing moves and none is torn, so that any mix of the two maps checks.
TEST_P(SaveCrash, WhileTheVolumeIsUsed) {
    constexpr Written kOlder{kFirst, 1000, 335 * 8}, kNewer{3000, 5000, 480};
    Start({.bootMode = 1}, SmallOptions(4 * kKiB, 4 * kKiB), kSwapBytes, {kOlder});
    SweepSave(
        "periodic save",
        [=](ProtectedComputer& computer) {
            WriteStamps(computer, kNewer.sector, kNewer.count, kNewer.stamp);
            host::AdvanceTime(40 * host::kTicksPerSecond);
        },
        [](ProtectedComputer& computer) { WriteStamps(computer, kFirst, 1, 1000); },
        [=](ProtectedComputer& computer, const CutPoint& cut, bool works) {
            const auto shown = ReadSectors(computer, 0, kNewer.sector + kNewer.count);
            EXPECT_EQ(works, Shows(shown, kOlder));
            if (works && !GetParam().hardened) return;  // the part of the new map that the cut left
            EXPECT_TRUE(Shows(shown, {kNewer.sector, FixedStamp(kNewer.sector), kNewer.count})
                            ? cut.struck
                            : Shows(shown, kNewer));
        });
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

INSTANTIATE_TEST_SUITE_P(Grounds, DiscardCrash, kGrounds);

TEST_P(DiscardCrash, AtEveryBoot) {
    Start({}, SmallOptions(4 * kKiB, 4 * kKiB), kSwapBytes);
    SweepBoot("discard", {});
}

TEST_P(DiscardCrash, OnceWithTheConfigurationWrittenBack) {
    Start({.bootMode = 1}, SmallOptions(4 * kKiB, 4 * kKiB), kSwapBytes);
    start = Reconfigured(start, {.bootMode = 1, .bootAction = 1});
    SweepBoot("discard once", {.bootMode = 1});
}

// The map is rewritten only after every range was copied, so a merge that was cut is made up for at the next
// boot: by the map while it survives, and when it does not, there is nothing left to copy.
TEST_P(MapCrash, WhileRedirectionsAreMerged) {
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
