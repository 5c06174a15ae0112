// Machines and media with many users at once: what the thread sanitizer is to see, and cuts in the midst of it.
#include <atomic>
#include <cstring>
#include <thread>
#include <gtest/gtest.h>
#include "machine/machine.h"
#include "machine/memory_disk.h"
#include "tests/support/stand_in.h"

namespace {

using namespace machine;
using Bytes = std::vector<std::uint8_t>;

MachineOptions OneDisk(const std::shared_ptr<MemoryDisk>& disk, Completion completion) {
    stand_in::Reset();
    MachineOptions options;
    options.disks = {{disk, false, completion}};
    options.driver = stand_in::Entry;
    return options;
}

Bytes ReadAll(Disk& disk) {
    Bytes data(disk.Size());
    EXPECT_EQ(STATUS_SUCCESS, disk.Read(0, data.data(), data.size()));
    return data;
}

// A driver's thread that waits in I/O when the power goes must come back from it.
TEST(Machine, PowerCutEndsThreadsThatWaitInIo) {
    Machine machine(OneDisk(std::make_shared<MemoryDisk>(1 << 20, 512), Completion::Stepped));
    ASSERT_EQ(STATUS_SUCCESS, machine.PowerOn());
    NTSTATUS status = STATUS_SUCCESS;
    std::thread guest([&] {
        UCHAR sector[512] = {};
        status = machine.Write(1, 0, sector, 512);
    });
    machine.DiskOf(0)->WaitForWaiting(1);
    machine.PowerCut();
    guest.join();
    EXPECT_EQ(STATUS_DEVICE_POWERED_OFF, status);
}

TEST(Machine, BusyGuestsMeetAPowerCutWithoutHarm) {
    auto disk = std::make_shared<MemoryDisk>(4 << 20, 512);
    Machine machine(OneDisk(disk, Completion::Pended));
    for (int boot = 0; boot < 3; ++boot) {
        stand_in::Reset();
        ASSERT_EQ(STATUS_SUCCESS, machine.PowerOn());
        std::vector<std::thread> guests;
        for (unsigned g = 0; g < 4; ++g) {
            guests.emplace_back([&machine, g] {
                std::vector<UCHAR> data(4096, static_cast<UCHAR>(g));
                std::uint64_t at = g * 4096;
                while (machine.Write(1, at % (2 << 20), data.data(), 4096) == STATUS_SUCCESS) at += 3 * 4096;
            });
        }
        while (machine.Power().WritesSeen() < 200u * (boot + 1)) std::this_thread::yield();
        machine.PowerCut();
        const auto after = disk->Clone();
        for (std::thread& guest : guests) guest.join();
        EXPECT_TRUE(disk->SameContent(*after)) << "a write reached the disk after the cut";
    }
}

// Users come and go while disks are plugged in and out; none meets a volume that is half there.
TEST(Machine, DisksComeAndGoUnderUse) {
    Machine machine(OneDisk(std::make_shared<MemoryDisk>(1 << 20, 512), Completion::Immediate));
    ASSERT_EQ(STATUS_SUCCESS, machine.PowerOn());
    std::atomic<bool> stop = false;
    std::vector<std::thread> guests;
    for (unsigned g = 0; g < 2; ++g) {
        guests.emplace_back([&] {
            UCHAR sector[512] = {};
            while (!stop) {
                EXPECT_EQ(STATUS_SUCCESS, machine.Write(1, 0, sector, 512));
                for (unsigned volume = 2; volume < 12; ++volume) {
                    const NTSTATUS status = machine.Read(volume, 0, sector, 512, u"\\a");
                    EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_NO_SUCH_DEVICE);
                }
                std::this_thread::yield();
            }
        });
    }
    for (int i = 0; i < 10; ++i) {
        unsigned number = 0;
        ASSERT_EQ(STATUS_SUCCESS, machine.AddDisk({std::make_shared<MemoryDisk>(1 << 20, 512), true}, number));
        ASSERT_EQ(STATUS_SUCCESS, machine.RemoveDisk(number));
    }
    stop = true;
    for (std::thread& guest : guests) guest.join();
}

TEST(Media, ClonesOfALiveDiskKeepSectorsWhole) {
    MemoryDisk disk(1 << 18, 512);
    std::atomic<bool> stop = false;
    std::thread writer([&] {
        for (std::uint8_t fill = 0; !stop; ++fill) {
            const Bytes data(1 << 18, fill);
            EXPECT_EQ(STATUS_SUCCESS, disk.Write(0, data.data(), data.size()));
        }
    });
    for (int i = 0; i < 50; ++i) {
        const Bytes seen = ReadAll(*disk.Clone());
        for (std::size_t s = 0; s < seen.size(); s += 512) {
            ASSERT_EQ(0, std::memcmp(&seen[s], Bytes(512, seen[s]).data(), 512));
        }
    }
    stop = true;
    writer.join();
}

TEST(Media, AfterCutReturnsNoWriteIsUnderWay) {
    auto memory = std::make_shared<MemoryDisk>(1 << 20, 512);
    auto power = std::make_shared<PowerSwitch>();
    FaultDisk disk(memory, power);
    for (int round = 0; round < 20; ++round) {
        std::vector<std::thread> writers;
        for (int w = 0; w < 3; ++w) {
            writers.emplace_back([&, w] {
                const Bytes data(1 << 16, static_cast<std::uint8_t>(round));
                while (disk.Write(static_cast<std::uint64_t>(w) << 16, data.data(), data.size()) ==
                       STATUS_SUCCESS) {
                }
            });
        }
        const std::uint64_t seen = power->WritesSeen();
        while (power->WritesSeen() < seen + 10) std::this_thread::yield();
        power->Cut();
        const auto then = memory->Clone();
        for (std::thread& writer : writers) writer.join();
        EXPECT_TRUE(memory->SameContent(*then));
        EXPECT_EQ(STATUS_DEVICE_POWERED_OFF, disk.Flush());
        power->Restore();
        EXPECT_EQ(STATUS_SUCCESS, disk.Flush());
    }
}

// Holds its writes back until it is told.
class SlowDisk final : public Disk {
public:
    std::uint64_t Size() const override { return 1 << 20; }
    std::uint32_t SectorSize() const override { return 512; }
    NTSTATUS Read(std::uint64_t, void*, std::size_t) override { return STATUS_SUCCESS; }
    NTSTATUS Write(std::uint64_t, const void*, std::size_t) override {
        begun = true;
        while (!go) std::this_thread::yield();
        written = true;
        return STATUS_SUCCESS;
    }
    NTSTATUS Flush() override { return STATUS_SUCCESS; }
    std::atomic<bool> begun = false, go = false, written = false;
};

TEST(Media, ACutWaitsForTheWriteThatIsUnderWay) {
    auto slow = std::make_shared<SlowDisk>();
    auto power = std::make_shared<PowerSwitch>();
    FaultDisk disk(slow, power);
    std::thread writer([&] { EXPECT_EQ(STATUS_SUCCESS, disk.Write(0, "", 512)); });
    while (!slow->begun) std::this_thread::yield();
    std::thread cutter([&] {
        power->Cut();
        EXPECT_TRUE(slow->written);
    });
    while (!power->IsCut()) std::this_thread::yield();
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    slow->go = true;
    cutter.join();
    writer.join();
}

}  // namespace
