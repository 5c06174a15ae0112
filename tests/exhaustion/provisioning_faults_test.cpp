// Faults in the threads that make and remove the storage. A storage that is not whole is not used; whatever is
// left behind, making it once more repairs it.
#include <cstdlib>
#include "tests/exhaustion/fault_sweep.h"

namespace {

using namespace exhaustion;

class ProvisioningFaults : public testing::Test {
protected:
    static ComputerImage Configured() { return Reconfigured(UnconfiguredImage(), {}); }
    // With storage, and not protected.
    static ComputerImage WithStorage() {
        ProtectedComputer computer(Configured());
        PowerOn(computer);
        EXPECT_EQ(STATUS_SUCCESS, computer.Provision(kSwapBytes));
        EXPECT_EQ(STATUS_SUCCESS, computer.SetConfig({.protectData = false}));
        computer.Hardware().Shutdown();
        return computer.Capture();
    }

    // Twice as in use, and protected from the boot after it on.
    static void ExpectRepairable(ProtectedComputer& computer) {
        EXPECT_EQ(STATUS_SUCCESS, computer.SetConfig({}));
        EXPECT_EQ(STATUS_SUCCESS, computer.Provision(kSwapBytes));
        EXPECT_EQ(static_cast<std::int64_t>(kSwapBytes), computer.Status().SwapTotalBytes);
        ExpectSound("after making the storage anew");
        computer.Hardware().Shutdown();
        ASSERT_NO_FATAL_FAILURE(PowerOn(computer));
        ExpectProtects(computer);
        computer.Hardware().Shutdown();
    }
    static void ExpectProtects(ProtectedComputer& computer) {
        EXPECT_EQ(2u, computer.Status().State);
        EXPECT_EQ(2u, computer.Status().SwapStatus);
        EXPECT_EQ(STATUS_SUCCESS, WriteStamps(computer, 300, 8, 8'000'000));
        View(computer, [](std::uint64_t s) {
            return std::vector<std::uint64_t>{s >= 300 && s < 308 ? 8'000'000 + s - 300 : FixedStamp(s)};
        });
        ExpectMediumUnchanged(computer);
    }

    // Of three runs one makes the storage anew at once and two look at the next boot, where one of them repairs
    // what it finds; KVR_LONG=1 repairs always.
    void SweepThread(const char* name, const ComputerImage& image,
                     std::function<void(ProtectedComputer&)> operate, bool becomesProtected, unsigned least) {
        Scenario scenario{name, &image, PowerOn, std::move(operate), {}};
        scenario.verify = [&](ProtectedComputer& computer, const Injected& injected) {
            ExpectMediumUnchanged(computer);
            const bool isLong = std::getenv("KVR_LONG") != nullptr;
            if (injected.nth % 3 == 1) return ExpectRepairable(computer);
            computer.Hardware().Shutdown();
            ASSERT_NO_FATAL_FAILURE(PowerOn(computer));
            ExpectSound("in the next boot");
            const KVR_FIXED_VOLUME_STATUS status = computer.Status();
            if (status.State == 2) {
                // The gate for writes may be closed when the storage came out small; it is not at this size.
                if (status.SwapTotalBytes > 9 * static_cast<std::int64_t>(kMiB)) ExpectProtects(computer);
            } else {
                EXPECT_TRUE(!becomesProtected || (status.SwapStatus >= 3 && status.SwapStatus <= 5))
                    << status.SwapStatus;
                if (isLong || injected.nth % 3 == 2) ExpectRepairable(computer);
            }
        };
        EXPECT_GE(Sweep(scenario), least);
    }
};

TEST_F(ProvisioningFaults, MakingTheStorage) {
    const ComputerImage image = Configured();
    const auto provision = [](ProtectedComputer& computer) {
        KVR_DISCARD(computer.Provision(kSwapBytes), "the thread may not even start");
    };
    SweepThread("provisioning", image, provision, true, 60);
}

TEST_F(ProvisioningFaults, MakingTheStorageAnew) {
    const ComputerImage image = WithStorage();
    const auto provision = [](ProtectedComputer& computer) {
        KVR_DISCARD(computer.Provision(kSwapBytes), "the thread may not even start");
    };
    SweepThread("provisioning again", image, provision, false, 60);
}

TEST_F(ProvisioningFaults, RemovingTheStorage) {
    const ComputerImage image = WithStorage();
    const auto remove = [](ProtectedComputer& computer) {
        KVR_DISCARD(computer.RemoveStorage(), "the thread may not even start");
    };
    SweepThread("removal", image, remove, false, 5);
}

}  // namespace
