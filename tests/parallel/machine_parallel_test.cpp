// Machines whose power is cut while many threads use them.
#include <thread>
#include <gtest/gtest.h>
#include "machine/boot/machine.h"
#include "tests/doubles/memory_disk.h"
#include "tests/support/stand_in.h"

namespace {

using namespace machine;

MachineOptions OneDisk(const std::shared_ptr<MemoryDisk>& disk, Completion completion) {
    stand_in::Reset();
    MachineOptions options;
    options.disks = {{disk, false, completion}};
    options.driver = stand_in::Entry;
    return options;
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

}  // namespace
