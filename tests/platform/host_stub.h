// A stack of stand-in devices for the host kernel's tests: each device answers its requests as its script says.
#pragma once
#include <gtest/gtest.h>
#include <functional>
#include "platform/host/io/device.h"
#include "platform/host/kernel_host.h"
#include "platform/host/object/object.h"
#include "platform/host/io/request.h"
#include "platform/kernel.h"

namespace stub {

using Script = std::function<NTSTATUS(PDEVICE_OBJECT device, PIRP irp)>;

struct Extension {
    Script* script;
    PDEVICE_OBJECT target;  // below, when attached
};

inline Extension& Of(PDEVICE_OBJECT device) {
    return *static_cast<Extension*>(device->DeviceExtension);
}

inline NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp) {
    return (*Of(device).script)(device, irp);
}

inline NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

inline NTSTATUS PassDown(PDEVICE_OBJECT device, PIRP irp) {
    IoSkipCurrentIrpStackLocation(irp);
    return IofCallDriver(Of(device).target, irp);
}

// One device, perhaps attached to others; deletes itself unless the script did.
class Device {
public:
    Device(PDRIVER_OBJECT driver, Script script, PDEVICE_OBJECT below = nullptr, const char16_t* name = nullptr)
        : script_(std::move(script)) {
        UNICODE_STRING counted;
        RtlInitUnicodeString(&counted, name);
        EXPECT_EQ(STATUS_SUCCESS,
                  IoCreateDevice(driver, sizeof(Extension), name == nullptr ? nullptr : &counted,
                                 FILE_DEVICE_DISK, 0, FALSE, &object));
        object->Flags |= DO_DIRECT_IO;
        Of(object) = {&script_, nullptr};
        if (below != nullptr) Of(object).target = IoAttachDeviceToDeviceStack(object, below);
        object->Flags &= ~DO_DEVICE_INITIALIZING;
    }
    ~Device() { Delete(); }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    void Delete() {
        if (object == nullptr) return;
        if (Of(object).target != nullptr) IoDetachDevice(Of(object).target);
        IoDeleteDevice(object);
        object = nullptr;
    }

    PDEVICE_OBJECT object = nullptr;

private:
    Script script_;
};

// A kernel that is on while the test runs, with one driver whose devices are scripted. At its end nothing that
// the request path made may be left.
class Kernel : public testing::Test {
protected:
    void SetUp() override {
        host::PowerOn();
        driver = host::CreateDriver(u"\\Driver\\stub");
        for (PDRIVER_DISPATCH& slot : driver->MajorFunction) slot = Dispatch;
    }
    void TearDown() override {
        const host::LeakReport report = host::PowerOff();
        EXPECT_EQ(0, report.memory.irps);
        EXPECT_EQ(0, report.memory.mdls);
        EXPECT_EQ(0, report.memory.lockedMdls);
        EXPECT_EQ(0u, report.devices);
        EXPECT_EQ(0u, report.handles);
        EXPECT_EQ(0u, report.threads);
    }

    PDRIVER_OBJECT driver = nullptr;
};

}  // namespace stub
