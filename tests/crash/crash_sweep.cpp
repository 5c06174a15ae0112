#include "tests/crash/crash_sweep.h"
#include <algorithm>
#include <cstdlib>
#include "thread.h"
#include "verifier.h"

namespace crash {

namespace {

constexpr std::uint32_t kSector = 512;
constexpr std::uint64_t kProbeSector = 4096;  // of the region; the scenarios' own writes stay below
constexpr std::uint64_t kProbeStamp = 900000;

}  // namespace

std::string CutPoint::Text() const {
    return "write " + std::to_string(nth) + ", " + std::to_string(kept) + " sectors of it kept" +
           (journaled ? ", directory from the journal" : "");
}

// ---- the sweep -------------------------------------------------------------------------------------------

namespace {

// False when the operation got through.
bool RunCut(const Scenario& scenario, CutPoint cut) {
    SCOPED_TRACE(scenario.name + ", cut at " + cut.Text());
    ProtectedComputer computer(*scenario.start);
    machine::PowerSwitch& power = computer.Hardware().Power();
    if (scenario.prepare) scenario.prepare(computer);
    if (testing::Test::HasFatalFailure()) return false;
    const std::uint64_t before = power.WritesSeen();
    power.ArmCut(cut.nth, cut.kept);
    scenario.operate(computer);
    cut.struck = power.WritesSeen() - before >= cut.nth;
    computer.Hardware().PowerCut();
    power.Restore();
    if (cut.journaled) computer.DataFiles().RestoreJournaled();
    if (cut.journaled) computer.SystemFiles().RestoreJournaled();
    if (!testing::Test::HasFatalFailure()) scenario.check(computer, cut);
    EXPECT_EQ(0u, host::AssertionCount());
    return cut.struck;
}

}  // namespace

unsigned Sweep(const Scenario& scenario) {
    unsigned struck = 0;
    std::vector<std::uint32_t> kept = scenario.kept;
    const bool isLong = std::getenv("KVR_LONG") != nullptr;
    if (isLong) kept.insert(kept.end(), {2, 5, 100});
    for (const bool journaled : {false, true}) {
        if (journaled && !scenario.journaled) break;
        if (journaled && !isLong) kept.resize(1);
        for (const std::uint32_t sectors : kept) {
            CutPoint cut{1, sectors, journaled};
            while (RunCut(scenario, cut) && !testing::Test::HasFailure()) ++cut.nth, ++struck;
        }
    }
    return struck;
}

// ---- computers -------------------------------------------------------------------------------------------

std::uint64_t FixedStamp(std::uint64_t sector) {
    return 5'000'000 + sector;
}

ComputerOptions SmallOptions(std::uint64_t piece, std::uint64_t gap, std::uint64_t dataBytes) {
    ComputerOptions options;
    options.dataBytes = dataBytes;
    options.storageBegin = 8 * kMiB;
    options.piece = piece;
    options.gap = gap;
    return options;
}

// Stamps count from the region, so that a sector of the region is found by its number there.
std::unique_ptr<ProtectedComputer> StampedComputer(const ComputerOptions& options) {
    auto computer = std::make_unique<ProtectedComputer>(options);
    std::vector<std::uint8_t> batch(64 * kKiB);
    for (std::uint64_t at = kRegion; at + batch.size() <= options.dataBytes - computer->DataOffset();
         at += batch.size()) {
        for (std::uint64_t i = 0; i < batch.size(); i += kSector)
            FillSector(&batch[i], kSector, FixedStamp((at - kRegion + i) / kSector));
        EXPECT_EQ(STATUS_SUCCESS,
                  computer->DataDisk().Write(computer->DataOffset() + at, batch.data(), batch.size()));
    }
    return computer;
}

void WriteStamps(ProtectedComputer& computer, std::uint64_t sector, std::uint64_t count, std::uint64_t stamp) {
    std::vector<std::uint8_t> data(count * kSector);
    for (std::uint64_t i = 0; i < count; ++i) FillSector(&data[i * kSector], kSector, stamp + i);
    const NTSTATUS status = computer.Hardware().Write(kDataVolume, kRegion + sector * kSector, data.data(),
                                                      static_cast<std::uint32_t>(data.size()));
    EXPECT_TRUE(NT_SUCCESS(status) || computer.Hardware().Power().IsCut()) << std::hex << status;
}

std::vector<std::uint8_t> ReadSectors(ProtectedComputer& computer, std::uint64_t sector, std::uint64_t count) {
    std::vector<std::uint8_t> data(count * kSector, 0xEE);
    EXPECT_EQ(STATUS_SUCCESS, computer.Hardware().Read(kDataVolume, kRegion + sector * kSector, data.data(),
                                                       static_cast<std::uint32_t>(data.size())));
    return data;
}

std::vector<std::uint8_t> MediumSectors(ProtectedComputer& computer, std::uint64_t sector,
                                        std::uint64_t count) {
    std::vector<std::uint8_t> data(count * kSector);
    computer.ReadMedium(kRegion + sector * kSector, data.data(), data.size());
    return data;
}

std::uint64_t StampAmong(const std::uint8_t* data, const std::vector<std::uint64_t>& stamps) {
    for (const std::uint64_t stamp : stamps)
        if (SectorHolds(data, kSector, stamp)) return stamp;
    ADD_FAILURE() << "none of the stamps that may stand there, the first of them " << stamps.at(0);
    return 0;
}

void PowerOn(ProtectedComputer& computer) {
    ASSERT_EQ(STATUS_SUCCESS, computer.Hardware().PowerOn());
    ASSERT_EQ(STATUS_SUCCESS, computer.Hardware().DriverStatus());
    host::JoinSystemThreads();
}

// ---- sectors ---------------------------------------------------------------------------------------------

void OwnSectors::LearnFiles(machine::ScriptedVolume& files, std::uint64_t volumeOffset, Ranges& ranges) {
    for (const std::u16string& path : files.Paths())
        for (const machine::Extent& extent : files.ExtentsOf(path))
            ranges.push_back({volumeOffset + extent.offset, volumeOffset + extent.offset + extent.length});
    Normalize(ranges);
}

// Ascending and apart.
void OwnSectors::Normalize(Ranges& ranges) {
    std::sort(ranges.begin(), ranges.end(), [](const auto& a, const auto& b) { return a.begin < b.begin; });
    Ranges merged;
    for (const auto& range : ranges) {
        if (merged.empty() || range.begin > merged.back().end)
            merged.push_back(range);
        else
            merged.back().end = std::max(merged.back().end, range.end);
    }
    ranges = std::move(merged);
}

void OwnSectors::Learn(ProtectedComputer& computer) {
    LearnFiles(computer.SystemFiles(), computer.SystemOffset(), system_);
    LearnFiles(computer.DataFiles(), computer.DataOffset(), data_);
}

void OwnSectors::LearnRegion(ProtectedComputer& computer, std::uint64_t sector, std::uint64_t count) {
    const std::uint64_t begin = computer.DataOffset() + kRegion + sector * kSector;
    data_.push_back({begin, begin + count * kSector});
    Normalize(data_);
}

void OwnSectors::ExpectWithin(const char* disk, const Ranges& differences, const Ranges& own) {
    for (const auto& range : differences) {
        const auto behind = std::upper_bound(own.begin(), own.end(), range.begin,
                                             [](std::uint64_t at, const auto& r) { return at < r.begin; });
        const bool within = behind != own.begin() && range.end <= std::prev(behind)->end;
        ASSERT_TRUE(within) << "bytes " << range.begin << " to " << range.end << " of the " << disk
                            << " disk changed";
    }
}

void OwnSectors::ExpectOthersUnchanged(const ComputerImage& before, ProtectedComputer& now) const {
    Ranges system = system_;
    const std::uint64_t spare = now.SystemOffset() + kSystemRegion;
    system.push_back({spare, spare + kSector});
    Normalize(system);
    ExpectWithin("system", now.SystemDisk().DifferencesFrom(*before.system), system);
    ExpectWithin("data", now.DataDisk().DifferencesFrom(*before.data), data_);
}

// ---- the driver after a cut ------------------------------------------------------------------------------

Storage ExpectWorkingOrReported(ProtectedComputer& computer) {
    const KVR_FIXED_VOLUME_STATUS status = computer.Status();
    const bool works = status.State == 2 && status.SwapStatus == 2;
    const bool reported = status.State == 0 && status.SwapStatus >= 3 && status.SwapStatus <= 5;
    EXPECT_TRUE(works || reported) << "state " << status.State << ", swap status " << status.SwapStatus;
    return works ? Storage::Works : Storage::Reported;
}

void ExpectProtects(ProtectedComputer& computer, bool keeps) {
    const auto fixed = MediumSectors(computer, kProbeSector, 40);
    WriteStamps(computer, kProbeSector, 40, kProbeStamp);
    const auto written = ReadSectors(computer, kProbeSector, 40);
    for (unsigned s = 0; s < 40; ++s)
        EXPECT_EQ(kProbeStamp + s, StampAmong(&written[s * 512], {kProbeStamp + s}));
    computer.Hardware().Shutdown();
    EXPECT_EQ(fixed, MediumSectors(computer, kProbeSector, 40)) << "a write reached the volume";
    PowerOn(computer);
    EXPECT_EQ(keeps ? written : fixed, ReadSectors(computer, kProbeSector, 40));
    computer.Hardware().Shutdown();
}

void ExpectRepairable(ProtectedComputer& computer, bool keeps) {
    EXPECT_EQ(STATUS_SUCCESS, computer.Provision(kSwapBytes));
    computer.Hardware().Shutdown();
    ASSERT_NO_FATAL_FAILURE(PowerOn(computer));
    ASSERT_EQ(Storage::Works, ExpectWorkingOrReported(computer)) << "making the storage anew repaired nothing";
    EXPECT_EQ(static_cast<std::int64_t>(kSwapBytes), computer.Status().SwapTotalBytes);
    ExpectProtects(computer, keeps);
}

}  // namespace crash
