// Loading, the version gate, and who may open what.
#include "platform/host/check/injector.h"
#include "platform/host/rtl/version.h"
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

}  // namespace
