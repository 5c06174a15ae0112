// Random use of a protected volume, through the whole of it, against a plain array that says what each sector
// must hold: reads, writes, flushes, map saves, boots in every mode, power cuts. A failure prints its seed;
//   KVR_MODEL_SEED=n  replays one seed      KVR_MODEL_OPERATIONS=n, KVR_LONG=1  run longer
#include <cstdlib>
#include <random>
#include <thread>
#include <gtest/gtest.h>
#include "driver/record/hardening.h"
#include "platform/host/sync/clock.h"
#include "tests/support/protected_computer.h"
#include "tests/support/volume_model.h"
#include "platform/host/check/verifier.h"

namespace {

using namespace support;

constexpr std::uint64_t kRegionBegin = 4 * kMiB;
constexpr std::uint64_t kRegionBytes = 16 * kMiB;
constexpr std::uint64_t kMergeLimit = 0x3300000;
constexpr std::uint64_t kNamedWritesLimit = 0x3000000;
constexpr char16_t kHive[] = u"\\Windows\\System32\\config\\SYSTEM";

struct Case {
    std::uint32_t sector;
    std::uint64_t swapMiB;
    machine::Completion completion;
    bool hardened = false;
    bool cold = false;
};

class ModelRun {
public:
    ModelRun(const Case& parameters, std::uint64_t seed)
        : random_(seed),
          swapBytes_(parameters.swapMiB * kMiB),
          hardened_(parameters.hardened),
          computer_({.dataSector = parameters.sector,
                     .completion = parameters.completion,
                     .cold = parameters.cold,
                     .hardened = parameters.hardened}),
          model_(kRegionBytes / parameters.sector, parameters.sector) {}

    void Run(unsigned operations) {
        ASSERT_NO_FATAL_FAILURE(computer_.Install({}, swapBytes_));
        ASSERT_NO_FATAL_FAILURE(Boot());
        for (unsigned i = 0; i < operations && !testing::Test::HasFailure(); ++i) {
            SCOPED_TRACE("operation " + std::to_string(i));
            Step();
        }
        ASSERT_NO_FATAL_FAILURE(CheckEverything());
        computer_.Hardware().Shutdown();
    }

private:
    std::uint64_t Pick(std::uint64_t bound) { return random_() % bound; }

    void Step() {
        const std::uint64_t dice = Pick(1000);
        if (dice < 450) {
            Read();
        } else if (dice < 920) {
            Write();
        } else if (dice < 950) {
            EXPECT_EQ(STATUS_SUCCESS, computer_.Hardware().Flush(kDataVolume));
        } else if (dice < 980) {
            host::AdvanceTime(static_cast<LONGLONG>(Pick(40)) * host::kTicksPerSecond);
        } else {
            Restart(dice >= 993);
        }
    }

    void PickRange(std::uint64_t& first, std::uint64_t& count) {
        const bool isLarge = Pick(20) == 0;
        count = 1 + Pick(isLarge ? 2 * kMiB / model_.SectorSize() : 24);
        // Most requests crowd into a small part of the region, so that they meet earlier ones.
        const std::uint64_t span = Pick(3) == 0 ? model_.Sectors() : model_.Sectors() / 16;
        if (count > span) count = span;
        first = Pick(span - count + 1);
    }

    void Read() {
        std::uint64_t first, count;
        PickRange(first, count);
        CheckView(first, count);
    }

    void CheckView(std::uint64_t first, std::uint64_t count) {
        const std::uint32_t sector = model_.SectorSize();
        std::vector<std::uint8_t> data(count * sector, 0xEE);
        ASSERT_EQ(STATUS_SUCCESS,
                  computer_.Hardware().Read(kDataVolume, kRegionBegin + first * sector, data.data(),
                                            static_cast<std::uint32_t>(data.size())));
        for (std::uint64_t i = 0; i < count; ++i)
            ASSERT_TRUE(SectorHolds(&data[i * sector], sector, model_.View(first + i)))
                << "sector " << first + i;
    }

    void Write() {
        std::uint64_t first, count;
        PickRange(first, count);
        const std::uint32_t sector = model_.SectorSize();
        const std::uint64_t freeBytes = swapBytes_ - model_.RedirectedBytes();
        if (freeBytes < count * sector + 9 * kMiB) return;  // running out of space has tests of its own
        const bool mayBeNamed = freeBytes >= kNamedWritesLimit + count * sector;
        const bool isVolatile = mayBeNamed && Pick(10) == 0;
        std::u16string name;
        if (mayBeNamed && Pick(2) == 0) name = u"\\file.bin";
        if (isVolatile) name = kHive;
        std::vector<std::uint8_t> data(count * sector);
        const std::uint64_t stamp = nextStamp_;
        nextStamp_ += count;
        const auto put = [&] {
            EXPECT_EQ(STATUS_SUCCESS,
                      computer_.Hardware().Write(kDataVolume, kRegionBegin + first * sector, data.data(),
                                                 static_cast<std::uint32_t>(data.size()), name));
        };
        // Now and then what is to be written changes while it is written already, and is written again.
        std::thread older;
        if (Pick(8) == 0) older = std::thread(put);
        for (std::uint64_t i = 0; i < count; ++i) FillSector(&data[i * sector], sector, stamp + i);
        put();
        if (older.joinable()) older.join();
        for (std::uint64_t i = 0; i < count; ++i) model_.Write(first + i, stamp + i, isVolatile);
        SaveIfDue();
    }

    // A redirected write saves the map when the last one that did lies more than 30 seconds back.
    void SaveIfDue() {
        if (host::SystemTime() <= lastSave_ + 30 * host::kTicksPerSecond) return;
        lastSave_ = host::SystemTime();
        model_.SaveMap();
    }

    void Restart(bool powerFails) {
        if (Pick(4) == 0) {
            ASSERT_NO_FATAL_FAILURE(CheckEverything());
        }
        if (powerFails) {
            computer_.Hardware().PowerCut();
        } else {
            computer_.Hardware().Shutdown();
            model_.SaveMap();
        }
        const bool canMerge = swapBytes_ - model_.SavedBytes() > kMergeLimit;
        model_.Boot(next_ == NextBoot::Merge && !canMerge ? NextBoot::Keep : next_);
        Boot();
    }

    void Boot() {
        ASSERT_EQ(STATUS_SUCCESS, computer_.Hardware().PowerOn());
        EXPECT_EQ(hardened_, gHardening != FALSE);
        lastSave_ = 0;
        ASSERT_NO_FATAL_FAILURE(CheckCounters());
        next_ = static_cast<NextBoot>(Pick(3));
        Configuration configuration;
        configuration.bootMode = next_ == NextBoot::Discard ? 0 : 1;
        configuration.bootAction = next_ == NextBoot::Merge ? 2 : 0;
        ASSERT_EQ(STATUS_SUCCESS, computer_.SetConfig(configuration));
    }

    void CheckCounters() {
        const KVR_FIXED_VOLUME_STATUS status = computer_.Status();
        EXPECT_EQ(2u, status.State);
        EXPECT_EQ(2u, status.SwapStatus);
        EXPECT_EQ(static_cast<std::int64_t>(swapBytes_), status.SwapTotalBytes);
        EXPECT_EQ(static_cast<std::int64_t>(model_.RedirectedBytes()), status.SwapUsedBytes);
    }

    void CheckEverything() {
        ASSERT_NO_FATAL_FAILURE(CheckCounters());
        const std::uint64_t batch = kMiB / model_.SectorSize();
        for (std::uint64_t s = 0; s < model_.Sectors(); s += batch)
            ASSERT_NO_FATAL_FAILURE(CheckView(s, batch));
        const std::uint32_t sector = model_.SectorSize();
        std::vector<std::uint8_t> own(kRegionBytes);
        computer_.ReadMedium(kRegionBegin, own.data(), own.size());
        for (std::uint64_t s = 0; s < model_.Sectors(); ++s)
            ASSERT_TRUE(SectorHolds(&own[s * sector], sector, model_.Fixed(s)))
                << "the volume's own sector " << s;
        EXPECT_EQ(0u, host::AssertionCount());
    }

    std::mt19937_64 random_;
    std::uint64_t swapBytes_;
    bool hardened_;
    ProtectedComputer computer_;
    VolumeModel model_;
    NextBoot next_ = NextBoot::Discard;
    LONGLONG lastSave_ = 0;
    std::uint64_t nextStamp_ = 1;
};

class Model : public testing::TestWithParam<Case> {};

TEST_P(Model, EverySectorHoldsWhatItMust) {
    const char* chosen = std::getenv("KVR_MODEL_SEED");
    const char* wanted = std::getenv("KVR_MODEL_OPERATIONS");
    const bool isLong = std::getenv("KVR_LONG") != nullptr;
    const unsigned operations = wanted ? std::atoi(wanted) : isLong ? 20000 : 1500;
    const std::uint64_t first = chosen ? std::strtoull(chosen, nullptr, 10) : 1;
    const std::uint64_t seeds = chosen ? 1 : isLong ? 20 : 2;
    for (std::uint64_t seed = first; seed < first + seeds && !HasFailure(); ++seed) {
        SCOPED_TRACE("replay with KVR_MODEL_SEED=" + std::to_string(seed));
        ModelRun(GetParam(), seed).Run(operations);
    }
}

INSTANTIATE_TEST_SUITE_P(Volumes, Model,
                         testing::Values(Case{512, 80, machine::Completion::Immediate},
                                         Case{512, 60, machine::Completion::Pended, true},
                                         Case{512, 60, machine::Completion::Pended},
                                         Case{4096, 80, machine::Completion::Immediate, true, true}));

}  // namespace
