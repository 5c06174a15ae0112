// Readers and writers at once on one protected volume, over ranges that overlap, with completions that pend and
// maps that are saved meanwhile. Whatever the interleaving: each sector holds the data of one write that
// covered it and that no other write came wholly after; the trees stay sound; what was there survives the
// shutdown.
#include <atomic>
#include <mutex>
#include <random>
#include <gtest/gtest.h>
#include "platform/host/sync/clock.h"
#include "tests/support/at_once.h"
#include "tests/support/lock_ranks.h"
#include "tests/support/map_invariants.h"
#include "tests/support/protected_computer.h"
#include "tests/support/volume_model.h"
#include "platform/host/check/verifier.h"
#include "driver/record/threads.h"
#include "driver/record/volume_list.h"
#include "driver/record/requests.h"

namespace {

using namespace support;

constexpr std::uint64_t kRegionBegin = 4 * kMiB;
constexpr std::uint32_t kSector = 512;
constexpr std::size_t kSectors = 512;
constexpr unsigned kWriters = 3;
constexpr unsigned kReaders = 2;

struct WriteRecord {
    std::size_t first, count;
    std::uint64_t stamp;  // of the first sector, the others follow
    std::uint64_t began, ended;
};

class Crowd {
public:
    explicit Crowd(machine::Machine& machine) : machine_(machine) {}

    void Run(unsigned writesEach) {
        AtOnce(kWriters + kReaders, [&](unsigned thread) {
            if (thread < kWriters)
                WriteMany(thread, writesEach);
            else
                ReadMany(thread);
        });
    }

    // No write that ended before another covering write began may still be seen.
    void CheckSectors() {
        std::vector<std::uint8_t> data(kSectors * kSector);
        ASSERT_EQ(STATUS_SUCCESS, machine_.Read(kDataVolume, kRegionBegin, data.data(), kSectors * kSector));
        for (std::size_t s = 0; s < kSectors; ++s) CheckSector(s, &data[s * kSector]);
    }

private:
    void WriteMany(unsigned writer, unsigned writes) {
        std::mt19937_64 random(writer + 1);
        for (unsigned i = 0; i < writes; ++i) {
            const std::size_t count = 1 + random() % 48;
            const std::size_t first = random() % (kSectors - count + 1);
            std::vector<std::uint8_t> data(count * kSector);
            const std::uint64_t stamp = nextStamp_.fetch_add(count);
            for (std::size_t k = 0; k < count; ++k) FillSector(&data[k * kSector], kSector, stamp + k);
            if (random() % 64 == 0) host::AdvanceTime(31 * host::kTicksPerSecond);
            const std::uint64_t began = clock_++;
            const NTSTATUS status =
                machine_.Write(kDataVolume, kRegionBegin + first * kSector, data.data(), count * kSector);
            EXPECT_EQ(STATUS_SUCCESS, status);
            std::lock_guard<std::mutex> guard(lock_);
            writes_.push_back({first, count, stamp, began, clock_++});
        }
        --writing_;
    }

    void ReadMany(unsigned reader) {
        std::mt19937_64 random(reader + 100);
        std::vector<std::uint8_t> data(64 * kSector);
        while (writing_ != 0) {
            const std::size_t first = random() % (kSectors - 64 + 1);
            EXPECT_EQ(STATUS_SUCCESS,
                      machine_.Read(kDataVolume, kRegionBegin + first * kSector, data.data(), 64 * kSector));
            if (random() % 8 == 0) {
                EXPECT_EQ(STATUS_SUCCESS, machine_.Flush(kDataVolume));
            }
        }
    }

    void CheckSector(std::size_t s, const std::uint8_t* data) {
        const auto covers = [s](const WriteRecord& w) { return s >= w.first && s < w.first + w.count; };
        const WriteRecord* found = nullptr;
        bool isCovered = false;
        for (const WriteRecord& w : writes_) {
            if (!covers(w)) continue;
            isCovered = true;
            if (SectorHolds(data, kSector, w.stamp + (s - w.first))) found = &w;
        }
        if (!isCovered) {
            EXPECT_TRUE(SectorHolds(data, kSector, 0)) << "sector " << s << " was never written";
            return;
        }
        ASSERT_NE(nullptr, found) << "sector " << s << " holds no covering write's data";
        for (const WriteRecord& w : writes_)
            ASSERT_FALSE(covers(w) && w.began > found->ended) << "sector " << s << " lost a later write";
    }

    machine::Machine& machine_;
    std::atomic<std::uint64_t> nextStamp_{1};
    std::atomic<std::uint64_t> clock_{0};
    std::atomic<unsigned> writing_{kWriters};
    std::mutex lock_;
    std::vector<WriteRecord> writes_;
};

class Overlap : public testing::TestWithParam<machine::Completion> {};

TEST_P(Overlap, EachSectorHoldsOneOfTheWritesThatCoveredIt) {
    ProtectedComputer computer({.completion = GetParam()});
    ASSERT_NO_FATAL_FAILURE(computer.Install({.bootMode = 1}, 64 * kMiB));
    for (unsigned round = 0; round < 3; ++round) {
        machine::Machine& machine = computer.Hardware();
        ASSERT_EQ(STATUS_SUCCESS, machine.PowerOn());
        // The map is emptied at each boot, so that first writes meet again.
        ASSERT_EQ(STATUS_SUCCESS, computer.SetConfig({.bootMode = 1, .bootAction = round == 0 ? 0 : 1}));
        std::vector<std::uint8_t> sector(kSector);
        ASSERT_EQ(STATUS_SUCCESS, machine.Read(kDataVolume, 0, sector.data(), kSector));
        RankStorageLocks();  // the volume is attached to its storage now
        Crowd crowd(machine);
        crowd.Run(150);
        ASSERT_NO_FATAL_FAILURE(crowd.CheckSectors());
        EXPECT_EQ("", CheckMaps(VolumeOf(machine.VolumeOf(kDataVolume)->device->Device()->AttachedDevice)));
        machine.Shutdown();
        ASSERT_EQ(STATUS_SUCCESS, machine.PowerOn());
        if (round == 0) {
            ASSERT_NO_FATAL_FAILURE(crowd.CheckSectors());
        }
        machine.Shutdown();
    }
    EXPECT_EQ(0u, host::AssertionCount());
}

INSTANTIATE_TEST_SUITE_P(Completions, Overlap,
                         testing::Values(machine::Completion::Immediate, machine::Completion::Pended));

// The power goes or the machine shuts down while requests run: every request ends with a status, and after a
// cut none of them reaches the disk.
TEST(ParallelEnd, RequestsEndWhenTheMachineDoes) {
    ProtectedComputer computer({.completion = machine::Completion::Pended});
    ASSERT_NO_FATAL_FAILURE(computer.Install({.bootMode = 0}, 64 * kMiB));
    machine::Machine& machine = computer.Hardware();
    for (const bool cut : {true, false, true, false}) {
        ASSERT_EQ(STATUS_SUCCESS, machine.PowerOn());
        std::atomic<unsigned> done{0};
        std::unique_ptr<machine::MemoryDisk> after;
        AtOnce(4, [&](unsigned thread) {
            if (thread == 0) {
                while (done < 30) std::this_thread::yield();
                cut ? machine.PowerCut() : static_cast<void>(machine.Shutdown());
                after = computer.DataDisk().Clone();
                return;
            }
            std::vector<std::uint8_t> data(8 * kSector, static_cast<std::uint8_t>(thread));
            for (std::uint64_t i = 0;; ++i, ++done) {
                const machine::Machine::Use use(machine);
                if (!use) return;
                const std::uint64_t offset = kRegionBegin + (i * 7 + thread) % 64 * data.size();
                const NTSTATUS status = machine.Write(kDataVolume, offset, data.data(), 8 * kSector);
                EXPECT_TRUE(NT_SUCCESS(status) || !machine.IsOn()) << std::hex << status;
            }
        });
        EXPECT_TRUE(computer.DataDisk().SameContent(*after)) << "a write reached the disk after the end";
    }
}

// A thread that waits in I/O when the power goes must come back from it.
TEST(ParallelEnd, APowerCutEndsThreadsThatWaitInIo) {
    ProtectedComputer computer;
    machine::Machine& machine = computer.Hardware();
    ASSERT_EQ(STATUS_SUCCESS, machine.PowerOn());
    machine.DiskOf(1)->SetCompletion(machine::Completion::Stepped);
    AtOnce(2, [&](int thread) {
        UCHAR sector[kSector] = {};
        if (thread == 0) {
            machine.DiskOf(1)->WaitForWaiting(1);
            machine.PowerCut();
        } else {
            EXPECT_EQ(STATUS_DEVICE_POWERED_OFF, machine.Write(kDataVolume, kRegionBegin, sector, kSector));
        }
    });
}

}  // namespace
