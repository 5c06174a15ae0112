// Starting and stopping the provisioning threads, with the threads held where it matters.
#include <atomic>
#include "control/provision_control.h"
#include "control/reports.h"
#include "platform/host/object/object.h"
#include "platform/host/sync/thread.h"
#include "tests/support/loaded_driver.h"
#include "formats/kvr_ioctl.h"
#include "driver/record/threads.h"

namespace {

class Provisioning : public LoadedDriver {
protected:
    // A volume that no record has: the threads have nothing to do.
    static SWAP_CONFIG_REQUEST For(const char16_t* name, std::int64_t size = -1) {
        SWAP_CONFIG_REQUEST request{};
        std::copy_n(name, std::char_traits<char16_t>::length(name), request.VolumeName);
        request.SwapSize = size;
        return request;
    }
    static NTSTATUS Allocate(SWAP_CONFIG_REQUEST request) {
        return StartSwapAllocation(&request, sizeof(request));
    }
    static NTSTATUS Remove(SWAP_CONFIG_REQUEST request) { return RunSwapRemoval(&request, 128); }
    void TearDown() override {
        host::JoinSystemThreads();
        EXPECT_EQ(nullptr, gProvisionThread.load());
        EXPECT_TRUE(host::OpenHandles().empty()) << "thread handles are closed";
        LoadedDriver::TearDown();
    }

    SWAP_CONFIG_REQUEST nowhere = For(u"\\Device\\Nowhere");
};

TEST_F(Provisioning, OneThreadAtATimeFromTheVeryStart) {
    AddStarted();
    host::ThreadGate gate;
    gProvisionQuit = TRUE;
    ASSERT_EQ(STATUS_SUCCESS, Allocate(nowhere));
    EXPECT_FALSE(gProvisionQuit) << "an earlier stop does not stop this one";
    EXPECT_EQ(1u, gate.Held());
    EXPECT_EQ(STATUS_FILE_LOCK_CONFLICT, Allocate(nowhere)) << "though the first has not run a step";
    EXPECT_EQ(STATUS_FILE_LOCK_CONFLICT, Remove(nowhere));
    KVR_FIXED_VOLUME_STATUS status{};
    ULONG_PTR written = 0;
    EXPECT_EQ(STATUS_SUCCESS, ReportFixedVolumes(&status, sizeof(status), &written));
    EXPECT_EQ(1u, status.SwapStatus);
    EXPECT_TRUE(gate.RunOne());
    EXPECT_EQ(STATUS_SUCCESS, Allocate(nowhere));
}

TEST_F(Provisioning, OfTwoRequestsAtOnceOneIsRefused) {
    for (int round = 0; round < 50; ++round) {
        host::ThreadGate gate;
        std::atomic<int> ready = 0, started = 0, refused = 0;
        const auto request = [&] {
            ++ready;
            while (ready < 2) std::this_thread::yield();
            const NTSTATUS status = Allocate(nowhere);
            started += status == STATUS_SUCCESS;
            refused += status == STATUS_FILE_LOCK_CONFLICT;
        };
        std::thread first(request), second(request);
        first.join();
        second.join();
        ASSERT_EQ(1, started);
        ASSERT_EQ(1, refused);
        EXPECT_TRUE(gate.RunOne());
    }
}

TEST_F(Provisioning, StopWaitsForTheThread) {
    EXPECT_EQ(STATUS_SUCCESS, StopSwapThread()) << "nothing runs";
    host::ThreadGate gate;
    ASSERT_EQ(STATUS_SUCCESS, Allocate(nowhere));
    std::atomic<bool> stopped = false;
    std::thread stopper([&] {
        EXPECT_EQ(STATUS_SUCCESS, StopSwapThread());
        stopped = true;
    });
    while (!gProvisionQuit) std::this_thread::yield();
    EXPECT_FALSE(stopped);
    EXPECT_NE(nullptr, gProvisionThread.load()) << "it still runs";
    gate.ReleaseAll();
    stopper.join();
    EXPECT_EQ(nullptr, gProvisionThread.load());
}

TEST_F(Provisioning, NotWhileStorageOrConfigurationIsInUse) {
    const char16_t* name = u"\\Device\\HarddiskVolume1";
    FilteredStack& stack = AddStarted({.name = name});
    FilteredStack& other = AddStarted({.name = u"\\Device\\HarddiskVolume2"});
    other.volume->IsProtected = TRUE;
    EXPECT_EQ(STATUS_SUCCESS, Remove(nowhere)) << "a protected volume elsewhere is no obstacle";
    gTesselEnabled = TRUE;
    other.volume->PreloadConfigLocation[0] = 512;
    EXPECT_TRUE(IsConfigVolumeProtected());
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Allocate(nowhere));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Remove(nowhere));
    gTesselEnabled = FALSE;
    EXPECT_FALSE(IsConfigVolumeProtected());

    stack.volume->IsProtected = TRUE;
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Allocate(For(name))) << "redirections are live in this storage";
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Remove(For(u"\\device\\HARDDISKVOLUME1")));
    stack.volume->MediaType = RemovableMedia;
    EXPECT_EQ(STATUS_SUCCESS, Remove(For(u"\\Device\\Nowhere2")));
    stack.volume->MediaType = FixedMedia;
}

}  // namespace
