// Readers and writers at once on one protected volume, over ranges that overlap, from buffers that change while
// they are written, with completions that pend and maps that are saved meanwhile. Whatever the interleaving:
// each sector holds the data of the write that began last; the trees stay sound; what was there survives the
// shutdown.
#include <atomic>
#include <chrono>
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
#include "driver/record/volume_list.h"
#include "driver/record/requests.h"

namespace {

using namespace support;

constexpr std::uint64_t kRegionBegin = 4 * kMiB;
constexpr std::uint32_t kSector = 512;
constexpr std::size_t kSectors = 512;
constexpr unsigned kWriters = 3;
constexpr unsigned kReaders = 2;

// Pages that their owner changes at any time, as a cache's are: none of the accesses is seen by the thread
// sanitizer, since the driver copies what it can get.
class LivePages {
public:
    explicit LivePages(std::size_t sectors) : bytes_(sectors * kSector), stamps_(sectors) {}
    std::uint8_t* At(std::size_t sector) { return &bytes_[sector * kSector]; }

    // One change at a time.
    __attribute__((no_sanitize("thread"))) void Change(std::size_t first, std::size_t count) {
        const std::lock_guard<std::mutex> guard(lock_);
        std::uint8_t fresh[kSector];
        for (std::size_t s = first; s < first + count; ++s) {
            FillSector(fresh, kSector, stamps_[s] = next_++);
            volatile std::uint8_t* to = At(s);
            for (std::uint32_t i = 0; i < kSector; ++i) to[i] = fresh[i];
        }
    }

    // Whoever changed a sector last wrote it afterwards, and what began later still found it changed.
    void CheckOn(machine::Machine& machine) const {
        std::vector<std::uint8_t> data(bytes_.size());
        ASSERT_EQ(STATUS_SUCCESS, machine.Read(kDataVolume, kRegionBegin, data.data(),
                                               static_cast<std::uint32_t>(data.size())));
        for (std::size_t s = 0; s < stamps_.size(); ++s)
            ASSERT_TRUE(SectorHolds(&data[s * kSector], kSector, stamps_[s])) << "sector " << s;
    }

private:
    std::mutex lock_;
    std::uint64_t next_ = 1;
    std::vector<std::uint8_t> bytes_;
    std::vector<std::uint64_t> stamps_;  // 0: never changed
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

    void CheckSectors() { pages_.CheckOn(machine_); }

private:
    void WriteMany(unsigned writer, unsigned writes) {
        std::mt19937_64 random(writer + 1);
        for (unsigned i = 0; i < writes; ++i) {
            const std::size_t count = 1 + random() % 48;
            const std::size_t first = random() % (kSectors - count + 1);
            if (random() % 64 == 0) host::AdvanceTime(31 * host::kTicksPerSecond);
            pages_.Change(first, count);
            EXPECT_EQ(STATUS_SUCCESS, machine_.Write(kDataVolume, kRegionBegin + first * kSector,
                                                     pages_.At(first), count * kSector));
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

    machine::Machine& machine_;
    LivePages pages_{kSectors};
    std::atomic<unsigned> writing_{kWriters};
};

// Of a device that completes at once no read is ready at once: the threads finish theirs as they wait.
class Overlap : public testing::TestWithParam<machine::Completion> {};

TEST_P(Overlap, EachSectorHoldsTheWriteThatBeganLast) {
    ProtectedComputer computer(
        {.completion = GetParam(), .cold = GetParam() == machine::Completion::Immediate});
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

// Of one live page that a device keeps, so that the test says which write gets on. Each waits for those before
// it that it overlaps, directly or not, and only for them: otherwise an older one would go over a newer one in
// place, or commit first and keep the newer one's data from the map.
TEST(WriteOrder, WritesGoInTheOrderInWhichTheyBegan) {
    ProtectedComputer computer;
    ASSERT_NO_FATAL_FAILURE(computer.Install({.bootMode = 0}, 64 * kMiB));
    machine::Machine& machine = computer.Hardware();
    ASSERT_EQ(STATUS_SUCCESS, machine.PowerOn());
    machine::DiskDevice* disk = machine.DiskOf(1);
    PVOLUME_EXTENSION volume = VolumeOf(machine.VolumeOf(kDataVolume)->device->Device()->AttachedDevice);
    LivePages pages(16);
    std::atomic<unsigned> running{0};
    std::vector<std::thread> writers;
    const auto write = [&](std::size_t first, std::size_t count) {
        EXPECT_EQ(STATUS_SUCCESS, machine.Write(kDataVolume, kRegionBegin + first * kSector, pages.At(first),
                                                static_cast<std::uint32_t>(count * kSector)));
    };
    // On a thread of its own, until it has its place among the others.
    const auto begin = [&](std::size_t first, std::size_t count) {
        pages.Change(first, count);
        ++running;
        writers.emplace_back([&, first, count] {
            write(first, count);
            --running;
        });
        for (std::size_t places = 0; places < writers.size(); std::this_thread::yield()) {
            const FastMutexLock lock(volume->WriteOrderLock);
            PLIST_ENTRY head = &volume->WritesUnderWay;
            places = 0;
            for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) ++places;
        }
    };
    // Carries out what the device keeps, the request at `index` first, until only `left` writes run.
    const auto carryOut = [&](std::size_t index, unsigned left) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (running > left && std::chrono::steady_clock::now() < end)
            if (!disk->Release(index)) std::this_thread::yield();
    };
    write(8, 2);  // the page is three runs, of which one is redirected
    disk->SetCompletion(machine::Completion::Stepped);
    begin(0, 4);
    begin(2, 8);
    begin(0, 12);
    begin(12, 4);  // overlaps none
    disk->WaitForWaiting(2);
    EXPECT_FALSE(disk->Release(2)) << "the second and the third wait";
    carryOut(1, 3);
    EXPECT_EQ(3u, running) << "the fourth is done";
    carryOut(0, 0);
    disk->SetCompletion(machine::Completion::Immediate);
    for (std::thread& writer : writers) writer.join();
    pages.CheckOn(machine);
}

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
