// The seals of a served machine, with the power on, through a merge and after it.
#include "ctl_served.h"
#include "nbd/sealing.h"
#include "tool/kvrhost/seal.h"

namespace {

using namespace ctl_test;
using nbd_test::kMiB;

class Sealed : public CtlServed {
protected:
    void Write(const char* volume, std::uint64_t offset) {
        auto client = Connect(volume);
        std::vector<std::uint8_t> bytes(kMiB, 'w');
        ASSERT_EQ(STATUS_SUCCESS, Transfer(client, nbd::Server::Action::Write, offset, bytes));
        server->Disconnect(std::move(client));
    }
    // Until no part waits for a new seal.
    bool Settled() const {
        for (int left = 600; left != 0; --left) {
            bool waiting = false;
            for (const inspect::PartSeal& part : inspect::LoadSeals(Folder() + "/seal")) waiting |= part.merged;
            if (!waiting) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }
};

TEST_F(Sealed, AreTakenAlongByAMergeAndByNothingElse) {
    for (const char* volume : {"1", "2"})
        Do({{"swap", "make", volume, "64M"}, {"protect", volume, "--at-boot", "keep"}});
    Do({{"enable"}});
    Reboot();
    EXPECT_EQ(0, tool::Seal(Folder()));
    Write("HarddiskVolume1", 40 * kMiB);
    Write("HarddiskVolume2", 40 * kMiB);
    EXPECT_EQ(0, tool::Verify(Folder())) << "what is redirected changes nothing";
    Do({{"merge", "2"}});
    Reboot();
    ASSERT_TRUE(Settled());
    EXPECT_EQ(0, tool::Verify(Folder())) << "the merged state is the fixed one";
    const std::vector<char> log = TestFolder::Bytes(Folder() + "/log");
    const std::string text(log.begin(), log.end());
    EXPECT_NE(std::string::npos, text.find("the seal of HarddiskVolume2 is renewed"));
    EXPECT_EQ(std::string::npos, text.find("the seal of HarddiskVolume1"));
    Reboot();
    control.reset(), server.reset();
    EXPECT_EQ(0, tool::Verify(Folder()));
    TestFolder::Put(Folder() + "/disk0.img", kMiB + 0x100, {'x'});
    EXPECT_EQ(1, tool::Verify(Folder())) << "a byte of the boot sector, which no merge wrote";
}

}  // namespace
