// Loading, the version gate, and who may open what.
#include "config/storage.h"
#include "control/provision_control.h"
#include "platform/host/injector.h"
#include "platform/host/version.h"
#include "redirect/swap_file.h"
#include "tests/support/loaded_driver.h"

namespace {

constexpr const char16_t* kLink = u"\\DosDevices\\kvr";

class Entry : public stub::Kernel {
protected:
    NTSTATUS Load() { return host::LoadDriver(DriverEntry, u"\\Driver\\kvr", kvr); }
    void TearDown() override {
        host::DisarmFaults();
        host::FailOsVersion(STATUS_SUCCESS);
        if (gControlDevice) IoDeleteDevice(gControlDevice);
        stub::Kernel::TearDown();
    }
    PDRIVER_OBJECT kvr = nullptr;
};

TEST_F(Entry, EveryLoadIsFresh) {
    gTesselEnabled = gRVProtect = gRVInvisible = gConfigLoaded = gConfigWrittenByTool = gProvisionQuit = TRUE;
    gConfigBuffer[0] = 7;
    gControlOpen = TRUE;
    gConfigureBusy = 1;
    gProvisionThread = reinterpret_cast<PKTHREAD>(8);
    gConfigFileHandle = reinterpret_cast<HANDLE>(8);
    gSwapFileList = reinterpret_cast<SWAP_FILE*>(8);
    gProtectedVolumeList = reinterpret_cast<PROTECTED_VOLUME*>(8);
    ASSERT_EQ(STATUS_SUCCESS, Load());
    EXPECT_FALSE(gTesselEnabled || gRVProtect || gRVInvisible || gConfigLoaded || gConfigWrittenByTool);
    EXPECT_FALSE(gProvisionQuit || gControlOpen || gConfigBuffer[0] || gConfigureBusy);
    EXPECT_FALSE(gProvisionThread.load() || gConfigFileHandle.load() || gSwapFileList ||
                 gProtectedVolumeList.load());
}

TEST_F(Entry, AStaleLinkIsReplaced) {
    UNICODE_STRING link = Counted(kLink), elsewhere = Counted(u"\\Device\\gone");
    ASSERT_EQ(STATUS_SUCCESS, IoCreateSymbolicLink(&link, &elsewhere));
    ASSERT_EQ(STATUS_SUCCESS, Load());
    PFILE_OBJECT file = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, host::OpenDevice(kLink, FILE_READ_DATA, file));
    host::CloseDevice(file);
}

TEST_F(Entry, WithoutDeviceOrLinkNothingStaysLoaded) {
    const ULONGLONG mark = host::DebugMark();
    host::FailCall(host::FaultBit(host::Fault::CreateDevice), 1);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Load());
    EXPECT_TRUE(host::DebugSaid(
        mark, "Kvr!DriverEntry: Error creating control device object \"\\Device\\kvr\", status=c000009a"));
    host::FailFromCall(host::FaultBit(host::Fault::CreateDevice), 2);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Load());
    EXPECT_EQ(3u, host::FaultCalls(host::Fault::CreateDevice)) << "the link is tried twice";
    EXPECT_TRUE(host::DebugSaid(mark, "Kvr!DriverEntry: IoCreateSymbolicLink failed"));
    EXPECT_EQ(0u, host::DeviceCount());
}

TEST_F(Entry, WithoutAVersionEverythingPasses) {
    host::FailOsVersion(STATUS_UNSUCCESSFUL);
    ASSERT_EQ(STATUS_SUCCESS, Load());
    for (PDRIVER_DISPATCH slot : kvr->MajorFunction) EXPECT_EQ(&KvrDefaultDispatch, slot);
    FilteredStack stack(driver, kvr, {});
    EXPECT_EQ(STATUS_SUCCESS, stack.added);
    EXPECT_FALSE(stack.IsFiltered());
}

class Opening : public LoadedDriver {};

TEST_F(Opening, OneHandleAtATime) {
    PFILE_OBJECT first = nullptr, second = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, host::OpenDevice(kLink, FILE_READ_DATA, first));
    EXPECT_EQ(STATUS_DEVICE_ALREADY_ATTACHED, host::OpenDevice(kLink, FILE_READ_DATA, second));
    EXPECT_EQ(STATUS_SUCCESS, host::Send(gControlDevice, {.major = IRP_MJ_CLEANUP}).status);
    EXPECT_EQ(STATUS_DEVICE_ALREADY_ATTACHED, host::OpenDevice(kLink, FILE_READ_DATA, second));
    ULONG returned = 0;
    EXPECT_EQ(STATUS_SUCCESS, host::DeviceIoControl(first, IOCTL_KVR_DEBUG, nullptr, 0, nullptr, 0, returned));
    host::CloseDevice(first);
    EXPECT_EQ(STATUS_SUCCESS, host::OpenDevice(kLink, FILE_READ_DATA, second));
    host::CloseDevice(second);
}

TEST_F(Opening, TheControlDeviceKnowsNoOtherRequests) {
    for (UCHAR major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; ++major) {
        if (major == IRP_MJ_CREATE || major == IRP_MJ_CLOSE || major == IRP_MJ_CLEANUP) continue;
        const NTSTATUS expected = major == IRP_MJ_DEVICE_CONTROL || major == IRP_MJ_INTERNAL_DEVICE_CONTROL
                                      ? STATUS_INVALID_PARAMETER  // answered, but code 0 is none of its own
                                      : STATUS_INVALID_DEVICE_REQUEST;
        EXPECT_EQ(expected, host::Send(gControlDevice, {.major = major}).status) << int(major);
    }
}

TEST_F(Opening, AFilterAnswersOpensItselfAndPassesTheRest) {
    FilteredStack& stack = Add();
    EXPECT_EQ(STATUS_SUCCESS, host::Send(stack.filter, {.major = IRP_MJ_CREATE}).status);
    EXPECT_EQ(0, stack.Arrived(IRP_MJ_CREATE));
    for (UCHAR major : {IRP_MJ_CLOSE, IRP_MJ_CLEANUP, IRP_MJ_FILE_SYSTEM_CONTROL}) {
        EXPECT_EQ(STATUS_SUCCESS, host::Send(stack.filter, {.major = major}).status);
        EXPECT_EQ(1, stack.Arrived(major));
    }
}

}  // namespace
