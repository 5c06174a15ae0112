// The power fails while storage is made, made anew over damaged storage, or removed.
#include <numeric>
#include "tests/crash/crash_sweep.h"

namespace {

using namespace crash;

void PowerOnAndProvision(ProtectedComputer& computer) {
    EXPECT_EQ(STATUS_SUCCESS, computer.Provision(kSwapBytes));
}

class ProvisioningCrash : public testing::Test {
protected:
    // Pieces with gaps: a sector beside the driver's own would be one of the gaps' stamps.
    static ComputerImage Configured() {
        return Reconfigured(StampedComputer(SmallOptions(512 * kKiB, 64 * kKiB))->Capture(), {});
    }
    // Storage whose map has a bad entry.
    static ComputerImage Damaged() {
        ProtectedComputer computer(Configured());
        PowerOn(computer);
        PowerOnAndProvision(computer);
        computer.Hardware().Shutdown();
        const auto place = computer.DataFiles().Find(u"\\kvr.MAP")->Extents.at(0);
        std::vector<std::uint8_t> bad(512);
        std::iota(bad.begin(), bad.end(), std::uint8_t{1});
        EXPECT_EQ(STATUS_SUCCESS,
                  computer.DataDisk().Write(computer.DataOffset() + place.Offset, bad.data(), bad.size()));
        return computer.Capture();
    }

    void Sweep(const char* name, const ComputerImage& start, std::function<void(ProtectedComputer&)> operate,
               unsigned least, bool makes = true) {
        Scenario scenario{name, &start, {0, 8}, true, {}, {}, {}};
        scenario.prepare = [&](ProtectedComputer& computer) {
            own = OwnSectors();
            own.Learn(computer);
            PowerOn(computer);
        };
        scenario.operate = [&](ProtectedComputer& computer) {
            operate(computer);
            own.Learn(computer);
        };
        scenario.check = [&](ProtectedComputer& computer, const CutPoint& cut) {
            Check(start, computer, !cut.struck && makes);
        };
        EXPECT_GE(crash::Sweep(scenario), least);
    }

    // `made`: the storage was finished before the power failed.
    void Check(const ComputerImage& start, ProtectedComputer& computer, bool made) {
        ASSERT_NO_FATAL_FAILURE(own.ExpectOthersUnchanged(start, computer));
        ASSERT_NO_FATAL_FAILURE(PowerOn(computer));
        const Storage found = ExpectUsable(computer, false);
        EXPECT_TRUE(found == Storage::Works || !made) << "finished storage is not found";
        own.Learn(computer);
        own.ExpectOthersUnchanged(start, computer);
    }

    OwnSectors own;
};

TEST_F(ProvisioningCrash, WhileStorageIsMade) {
    Sweep("provisioning", Configured(), PowerOnAndProvision, 3 * 25);
}

TEST_F(ProvisioningCrash, WhileDamagedStorageIsMadeAnew) {
    Sweep("provisioning again", Damaged(), PowerOnAndProvision, 3 * 25);
}

TEST_F(ProvisioningCrash, WhileStorageIsRemoved) {
    const auto remove = [](ProtectedComputer& computer) {
        EXPECT_EQ(STATUS_SUCCESS, computer.RemoveStorage());
    };
    Sweep("removal", Damaged(), remove, 3 * 2, false);
}

}  // namespace
