#include "tests/crash/crash_sweep.h"
#include <algorithm>
#include <cstdlib>
#include "platform/host/check/verifier.h"

namespace crash {

namespace {

constexpr std::uint32_t kSector = 512;
constexpr std::uint64_t kProbeSector = 4096;  // of the region; the scenarios' own writes stay below
constexpr std::uint64_t kProbeStamp = 900000;

}  // namespace

// ---- the sweep -------------------------------------------------------------------------------------------

namespace {

std::string TextOf(const CutPoint& cut) {
    return "write " + std::to_string(cut.nth) + ", " + std::to_string(cut.kept) + " sectors of it kept" +
           (cut.journaled ? ", directory from the journal" : "") + ", subset " + std::to_string(cut.seed);
}

// False when the operation got through.
bool RunCut(const Scenario& scenario, CutPoint cut) {
    SCOPED_TRACE(scenario.name + ", cut at " + TextOf(cut));
    ProtectedComputer computer(*scenario.start);
    machine::PowerSwitch& power = computer.Hardware().Power();
    if (scenario.prepare) scenario.prepare(computer);
    if (testing::Test::HasFatalFailure()) return false;
    const std::uint64_t before = power.WritesSeen();
    power.ArmCut(cut.nth, cut.kept);
    scenario.operate(computer);
    cut.struck = power.WritesSeen() - before >= cut.nth;
    computer.Hardware().PowerCut();
    computer.LoseUnflushed(cut.seed);
    power.Restore();
    if (cut.journaled) {
        computer.DataFiles().RestoreJournaled();
        computer.SystemFiles().RestoreJournaled();
    }
    if (!testing::Test::HasFatalFailure()) scenario.check(computer, cut);
    EXPECT_EQ(0u, host::AssertionCount());
    return cut.struck;
}

// Cuts at the first, second, ... write; returns how many cuts struck.
unsigned SweepWrites(const Scenario& scenario, CutPoint cut) {
    unsigned struck = 0;
    while (RunCut(scenario, cut) && !testing::Test::HasFailure()) ++cut.nth, ++struck;
    return struck;
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
            const unsigned subsets = sectors != kept[0] ? 1 : isLong ? 4 * scenario.subsets : scenario.subsets;
            for (std::uint32_t seed = 0; seed < subsets; ++seed)
                struck += SweepWrites(scenario, {1, sectors, journaled, seed});
        }
    }
    return struck;
}

// ---- computers -------------------------------------------------------------------------------------------

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

// ---- sectors ---------------------------------------------------------------------------------------------

namespace {

void Mark(std::vector<bool>& own, std::uint64_t begin, std::uint64_t length) {
    own.resize(std::max<std::size_t>(own.size(), (begin + length) / kSector));
    std::fill_n(own.begin() + static_cast<std::ptrdiff_t>(begin / kSector), length / kSector, true);
}

void MarkFiles(std::vector<bool>& own, const PlayedFiles& files, std::uint64_t volumeOffset) {
    for (const auto& [path, file] : files.All())
        for (const FileExtent& extent : file->Extents) Mark(own, volumeOffset + extent.Offset, extent.Length);
}

void ExpectWithin(const char* disk, const std::vector<machine::MemoryDisk::Range>& differences,
                  const std::vector<bool>& own) {
    for (const auto& range : differences)
        for (std::uint64_t at = range.begin / kSector; at < range.end / kSector; ++at)
            ASSERT_TRUE(at < own.size() && own[at]) << "sector " << at << " of the " << disk << " disk changed";
}

}  // namespace

void OwnSectors::Learn(ProtectedComputer& computer) {
    MarkFiles(system_, computer.SystemFiles(), computer.SystemOffset());
    MarkFiles(data_, computer.DataFiles(), computer.DataOffset());
    Mark(system_, computer.SystemOffset() + kSystemRegion, kSector);
}

void OwnSectors::LearnRegion(ProtectedComputer& computer, std::uint64_t sector, std::uint64_t count) {
    Mark(data_, computer.DataOffset() + kRegion + sector * kSector, count * kSector);
}

void OwnSectors::ExpectOthersUnchanged(const ComputerImage& before, ProtectedComputer& now) const {
    ExpectWithin("system", now.SystemDisk().DifferencesFrom(*before.system), system_);
    ExpectWithin("data", now.DataDisk().DifferencesFrom(*before.data), data_);
}

// ---- the driver after a cut ------------------------------------------------------------------------------

namespace {

// The driver says that the volume is protected with its storage, or that it is not and why (3, 4 or 5).
Storage ExpectWorkingOrReported(ProtectedComputer& computer) {
    const KVR_FIXED_VOLUME_STATUS status = computer.Status();
    const bool works = status.State == 2 && status.SwapStatus == 2;
    const bool reported = status.State == 0 && status.SwapStatus >= 3 && status.SwapStatus <= 5;
    EXPECT_TRUE(works || reported) << "state " << status.State << ", swap status " << status.SwapStatus;
    return works ? Storage::Works : Storage::Reported;
}

// Writes are redirected and read back, and the next boot treats them as configured.
void ExpectProtects(ProtectedComputer& computer, bool keeps) {
    const auto fixed = MediumSectors(computer, kProbeSector, 40);
    WriteStamps(computer, kProbeSector, 40, kProbeStamp);
    const auto written = ReadSectors(computer, kProbeSector, 40);
    for (unsigned s = 0; s < 40; ++s) EXPECT_TRUE(SectorHolds(&written[s * kSector], kSector, kProbeStamp + s));
    computer.Hardware().Shutdown();
    EXPECT_EQ(fixed, MediumSectors(computer, kProbeSector, 40)) << "a write reached the volume";
    PowerOn(computer);
    EXPECT_EQ(keeps ? written : fixed, ReadSectors(computer, kProbeSector, 40));
    computer.Hardware().Shutdown();
}

// Making the storage once more repairs what is reported: from the boot after that on the volume is protected.
void ExpectRepairable(ProtectedComputer& computer, bool keeps) {
    EXPECT_EQ(STATUS_SUCCESS, computer.Provision(kSwapBytes));
    computer.Hardware().Shutdown();
    ASSERT_NO_FATAL_FAILURE(PowerOn(computer));
    ASSERT_EQ(Storage::Works, ExpectWorkingOrReported(computer)) << "making the storage anew repaired nothing";
    EXPECT_EQ(static_cast<std::int64_t>(kSwapBytes), computer.Status().SwapTotalBytes);
    ExpectProtects(computer, keeps);
}

}  // namespace

Storage ExpectUsable(ProtectedComputer& computer, bool keeps) {
    const Storage storage = ExpectWorkingOrReported(computer);
    if (storage == Storage::Works)
        ExpectProtects(computer, keeps);
    else
        ExpectRepairable(computer, keeps);
    return storage;
}

}  // namespace crash
