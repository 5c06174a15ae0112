// Faults while a computer boots and while disks come and go. A device may be left without its filter and a
// volume without its storage; nothing leaks, the volume's own sectors stay as they are, and the next boot is
// sound.
#include "tests/exhaustion/fault_sweep.h"
#include "platform/host/sync/thread.h"
#include "driver/record/threads.h"
#include "driver/record/volume_list.h"
#include "driver/record/requests.h"

namespace {

using namespace exhaustion;

void Boot(ProtectedComputer& computer) {
    KVR_DISCARD(computer.Hardware().PowerOn(), "what the driver makes of it is looked at");
}

std::vector<std::uint64_t> OwnOrKept(std::uint64_t s) {
    return IsKept(s) ? std::vector{FixedStamp(s), KeptStamp(s)} : std::vector{FixedStamp(s)};
}
std::vector<std::uint64_t> Own(std::uint64_t s) {
    return {FixedStamp(s)};
}
std::vector<std::uint64_t> Kept(std::uint64_t s) {
    return {IsKept(s) ? KeptStamp(s) : FixedStamp(s)};
}

// Protected and with storage, or not protected and why; a volume that came up without the storage it has is
// found whole in a boot without faults.
void ExpectStateIsTold(ProtectedComputer& computer) {
    if (!NT_SUCCESS(computer.Hardware().DriverStatus()) || !DataVolume(computer)) return;
    const KVR_FIXED_VOLUME_STATUS status = computer.Status();
    EXPECT_TRUE(status.State == 0 || status.State == 2) << status.State;
    EXPECT_TRUE(status.SwapStatus == 0 || (status.SwapStatus >= 2 && status.SwapStatus <= 5))
        << status.SwapStatus;
}

// In a boot without faults. A run of the map that could not be read is skipped, and a chunk that found no
// memory is forgotten: what they held is lost with the next save of the map. Nothing else costs storage.
void ExpectStorage(ProtectedComputer& computer, std::int64_t total, const Injected& injected) {
    const KVR_FIXED_VOLUME_STATUS status = computer.Status();
    EXPECT_EQ(2u, status.State);
    EXPECT_GE(total, status.SwapTotalBytes);
    const bool mayLose = injected.IsMemory() || injected.kind == host::Fault::BuildRequest ||
                         injected.kind == host::Fault::LowerIo;
    if (!mayLose) {
        EXPECT_EQ(total, status.SwapTotalBytes);
    }
}

class BootFaults : public testing::Test {
protected:
    // `whole`: what the volume shows after a boot without faults; `damaged`: what it may show otherwise.
    void SweepBoot(const char* name, const ComputerImage& image, const Choices& whole, const Choices& damaged,
                   unsigned least, std::function<void(ProtectedComputer&)> afterwards = {}) {
        std::int64_t total = 0;  // of the boot without faults, which comes first
        Scenario scenario{name, &image, {}, Boot, {}};
        scenario.verify = [&](ProtectedComputer& computer, const Injected& injected) {
            ExpectStateIsTold(computer);
            if (total == 0) total = computer.Status().SwapTotalBytes;
            if (!afterwards) ExpectMediumUnchanged(computer);
            // Without its partition table a disk has no volume.
            if (computer.Hardware().VolumeOf(kDataVolume)) View(computer, damaged);
            computer.Hardware().Shutdown();
            ASSERT_NO_FATAL_FAILURE(PowerOn(computer));
            View(computer, injected.kind == host::Fault::Count ? whole : damaged);
            ExpectStorage(computer, total, injected);
            if (afterwards)
                afterwards(computer);
            else
                ExpectMediumUnchanged(computer);
            ExpectSound("in the next boot");
            computer.Hardware().Shutdown();
        };
        EXPECT_GE(Sweep(scenario), least);
    }
};

TEST_F(BootFaults, WithRedirectionsThatAreKept) {
    SweepBoot("boot that keeps", CoarseImage(), Kept, OwnOrKept, 40);
}

TEST_F(BootFaults, WithRedirectionsThatAreDiscarded) {
    const ComputerImage image = Reconfigured(CoarseImage(), {});
    SweepBoot("boot that discards", image, Own, Own, 40);
}

// A range that could not be copied is given up with the others; the volume holds its old or its new content.
TEST_F(BootFaults, WithRedirectionsThatAreMerged) {
    const ComputerImage image = Reconfigured(MakeProtected(SmallOptions(kMiB, 4 * kKiB, 80 * kMiB), 56 * kMiB),
                                             {.bootMode = 1, .bootAction = 2});
    SweepBoot("boot that merges", image, Kept, OwnOrKept, 40, [](ProtectedComputer& computer) {
        EXPECT_EQ(View(computer, OwnOrKept), Medium(computer, OwnOrKept));
    });
}

// The thread that holds the files: without one of them the storage is told not to be safe, and the volume stays
// protected until the next boot.
TEST_F(BootFaults, TheThreadThatHoldsTheFiles) {
    std::unique_ptr<host::ThreadGate> gate;
    Scenario scenario{"arm thread", &ProtectedImage(), {}, {}, {}};
    scenario.prepare = [&](ProtectedComputer& computer) {
        gate = std::make_unique<host::ThreadGate>();
        ASSERT_EQ(STATUS_SUCCESS, computer.Hardware().PowerOn());
    };
    scenario.operate = [&](ProtectedComputer& computer) {
        // One that could not be started is started by the next write with a file.
        std::vector<std::uint8_t> sector(512);
        KVR_DISCARD(computer.Hardware().Write(kDataVolume, 0x8000, sector.data(), 512, u"\\file"), "may fail");
        gate.reset();
    };
    scenario.verify = [](ProtectedComputer& computer, const Injected& injected) {
        const KVR_FIXED_VOLUME_STATUS status = computer.Status();
        EXPECT_EQ(2u, status.State);
        EXPECT_TRUE(status.SwapStatus == 2 || (injected.kind != host::Fault::Count && status.SwapStatus == 5))
            << status.SwapStatus;
        EXPECT_EQ(STATUS_SUCCESS, WriteStamps(computer, 300, 8, 8'000'000));
        ExpectMediumUnchanged(computer);
    };
    EXPECT_GE(Sweep(scenario), 5u);
}

// ---- plug and play ---------------------------------------------------------------------------------------

std::shared_ptr<machine::MemoryDisk> NewDisk() {
    std::uint64_t offset = 0;
    return OneVolumeDisk(4 * kMiB, 512, offset);
}

void ExpectOldVolumeWorks(ProtectedComputer& computer) {
    View(computer, Kept);
    EXPECT_EQ(STATUS_SUCCESS, WriteStamps(computer, 300, 8, 8'000'000));
    ExpectMediumUnchanged(computer);
    ExpectSound("after use of the protected volume");
    computer.Hardware().Shutdown();
}

class PlugFaults : public testing::TestWithParam<bool> {};  // removable or fixed

TEST_P(PlugFaults, DiskThatComes) {
    Scenario scenario{"disk comes", &ProtectedImage(), PowerOn, {}, {}};
    unsigned number = 0;
    scenario.operate = [&](ProtectedComputer& computer) {
        number = 0;
        KVR_DISCARD(computer.Hardware().AddDisk({NewDisk(), GetParam()}, number), "a stack may fail to start");
    };
    scenario.verify = [&](ProtectedComputer& computer, const Injected&) {
        KVR_DISCARD(computer.Hardware().RemoveDisk(number), "it may not be whole");
        ExpectOldVolumeWorks(computer);
    };
    EXPECT_GE(Sweep(scenario), 5u);
}

TEST_P(PlugFaults, DiskThatGoes) {
    Scenario scenario{"disk goes", &ProtectedImage(), {}, {}, {}};
    unsigned number = 0;
    scenario.prepare = [&](ProtectedComputer& computer) {
        PowerOn(computer);
        EXPECT_EQ(STATUS_SUCCESS, computer.Hardware().AddDisk({NewDisk(), GetParam()}, number));
    };
    scenario.operate = [&](ProtectedComputer& computer) {
        EXPECT_EQ(STATUS_SUCCESS, computer.Hardware().RemoveDisk(number));
    };
    scenario.verify = [&](ProtectedComputer& computer, const Injected&) { ExpectOldVolumeWorks(computer); };
    Sweep(scenario);
}

INSTANTIATE_TEST_SUITE_P(Kinds, PlugFaults, testing::Bool());

}  // namespace
