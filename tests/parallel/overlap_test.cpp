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

// Writes of one live page that a device keeps, so that the test says which of them gets on.
class WriteOrder : public testing::Test {
protected:
    static constexpr std::size_t kPage = 16;  // sectors

    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(computer_.Install({.bootMode = 0}, 64 * kMiB));
        ASSERT_EQ(STATUS_SUCCESS, machine_.PowerOn());
        Write(8, 2);  // a page is two runs or three, of which one is redirected
        disk_ = machine_.DiskOf(1);
        disk_->SetCompletion(machine::Completion::Stepped);
    }

    // Changes the sectors and begins to write them, on a thread of its own.
    void Begin(std::size_t first, std::size_t count) {
        pages_.Change(first, count);
        ++running_;
        writers_.emplace_back([this, first, count] {
            Write(first, count);
            --running_;
        });
    }
    void Write(std::size_t first, std::size_t count) {
        EXPECT_EQ(STATUS_SUCCESS, machine_.Write(kDataVolume, kRegionBegin + first * kSector, pages_.At(first),
                                                 static_cast<std::uint32_t>(count * kSector)));
    }
    // So many writes have their place.
    void WaitForPlaces(std::size_t count) {
        PVOLUME_EXTENSION volume = VolumeOf(machine_.VolumeOf(kDataVolume)->device->Device()->AttachedDevice);
        for (std::size_t places = 0; places < count; std::this_thread::yield()) {
            const FastMutexLock lock(volume->WriteOrderLock);
            PLIST_ENTRY head = &volume->WritesUnderWay;
            places = 0;
            for (PLIST_ENTRY link = head->Flink; link != head; link = link->Flink) ++places;
        }
    }
    // Carries out what the device keeps, the request at `index` first, until only `left` writes run or, since
    // they need not come, a moment is over.
    void CarryOut(std::size_t index, unsigned left, std::chrono::milliseconds moment) {
        const auto end = std::chrono::steady_clock::now() + moment;
        while (running_ > left && std::chrono::steady_clock::now() < end)
            if (!disk_->Release(index)) std::this_thread::yield();
    }
    void Finish() {
        CarryOut(0, 0, std::chrono::seconds(60));
        disk_->SetCompletion(machine::Completion::Immediate);
        for (std::thread& writer : writers_) writer.join();
        pages_.CheckOn(machine_);
    }

    static constexpr std::chrono::milliseconds kMoment{100};
    ProtectedComputer computer_;
    machine::Machine& machine_ = computer_.Hardware();
    machine::DiskDevice* disk_ = nullptr;
    LivePages pages_{2 * kPage};
    std::atomic<unsigned> running_{0};
    std::vector<std::thread> writers_;
};

// The newer write would redirect what the older one has not reached yet, which would then go there with older
// data.
TEST_F(WriteOrder, AnOlderWriteDoesNotGoOverANewerOneInPlace) {
    Begin(0, kPage);
    disk_->WaitForWaiting(1);
    Begin(0, kPage);
    CarryOut(1, 1, kMoment);
    Finish();
}

// The older write would commit first and the newer one's data be dropped.
TEST_F(WriteOrder, AnOlderWriteDoesNotKeepANewerOneFromTheMap) {
    Begin(kPage, kPage);
    disk_->WaitForWaiting(1);
    Begin(kPage, kPage);
    std::this_thread::sleep_for(kMoment);
    ASSERT_TRUE(disk_->Release());
    while (running_ > 1) std::this_thread::yield();
    Finish();
}

// Each waits for those before it that it overlaps, directly or not, and only for them.
TEST_F(WriteOrder, WritesGoInTheOrderInWhichTheyBegan) {
    Begin(0, 4);
    WaitForPlaces(1);
    Begin(2, 8);
    WaitForPlaces(2);
    Begin(0, 12);
    WaitForPlaces(3);
    Begin(12, 4);  // overlaps none
    WaitForPlaces(4);
    disk_->WaitForWaiting(2);
    EXPECT_FALSE(disk_->Release(2)) << "the second and the third wait";
    CarryOut(1, 3, std::chrono::seconds(60));
    EXPECT_EQ(3u, running_) << "the fourth is done";
    Finish();
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
