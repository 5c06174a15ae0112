// Devices: stacks, names, properties, the managers' requests, and their end.
#include "host_stub.h"

namespace {

using stub::Complete;
using stub::Device;
using stub::PassDown;

NTSTATUS Succeed(PDEVICE_OBJECT, PIRP irp) {
    return Complete(irp, STATUS_SUCCESS);
}

class HostDevices : public stub::Kernel {};
using HostDevicesDeath = HostDevices;

TEST_F(HostDevices, StacksGrowAndShrink) {
    Device disk(driver, Succeed, nullptr, u"\\Device\\Disk0");
    disk.object->SectorSize = 4096;
    disk.object->AlignmentRequirement = 3;
    Device first(driver, PassDown, disk.object);
    Device second(driver, PassDown, disk.object);  // lands on top although it names the bottom
    EXPECT_EQ(first.object, stub::Of(second.object).target);
    EXPECT_EQ(4096, second.object->SectorSize);
    EXPECT_EQ(3u, second.object->AlignmentRequirement);
    EXPECT_EQ(second.object, host::TopOfStack(disk.object));
    PDEVICE_OBJECT lower = IoGetLowerDeviceObject(second.object);
    EXPECT_EQ(first.object, lower);
    EXPECT_EQ(2, host::ReferencesOf(lower));
    ObfDereferenceObject(lower);
    EXPECT_EQ(nullptr, IoGetLowerDeviceObject(disk.object));

    second.Delete();
    EXPECT_EQ(first.object, host::TopOfStack(disk.object));
    disk.object->Flags |= DO_DEVICE_INITIALIZING;
    first.Delete();
    PDEVICE_OBJECT early = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_DISK, 0, FALSE, &early));
    EXPECT_EQ(nullptr, IoAttachDeviceToDeviceStack(early, disk.object));
    IoDeleteDevice(early);
}

TEST_F(HostDevices, ShutdownGoesToTheLastRegisteredFirstAndSurvivesDeletion) {
    std::string order;
    const auto say = [&](const char* what) {
        return [&order, what](PDEVICE_OBJECT, PIRP irp) {
            EXPECT_EQ(IRP_MJ_SHUTDOWN, IoGetCurrentIrpStackLocation(irp)->MajorFunction);
            order += what;
            return Complete(irp, STATUS_SUCCESS);
        };
    };
    Device first(driver, say("1"));
    Device* goes = nullptr;
    Device second(
        driver,
        [&](PDEVICE_OBJECT, PIRP irp) {
            order += "2";
            IoUnregisterShutdownNotification(goes->object);
            goes->Delete();
            return Complete(irp, STATUS_SUCCESS);
        },
        first.object);
    goes = &second;
    Device third(driver, say("3"));
    Device leaves(driver, say("x"));
    for (Device* device : {&first, &leaves, &second, &third})
        EXPECT_EQ(STATUS_SUCCESS, IoRegisterShutdownNotification(device->object));
    leaves.Delete();
    host::NotifyShutdown();
    EXPECT_EQ("321", order);
    host::NotifyShutdown();
    EXPECT_EQ("321", order);
}

TEST_F(HostDevicesDeath, MisuseStops) {
    Device bottom(driver, Succeed);
    Device top(driver, PassDown, bottom.object);
    EXPECT_DEATH(IoDeleteDevice(bottom.object), "deleted under another");
    EXPECT_DEATH(IoDeleteDevice(top.object), "deleted while attached");
    EXPECT_DEATH(IoDetachDevice(top.object), "nothing to detach");
    EXPECT_DEATH((void)IoAttachDeviceToDeviceStack(top.object, bottom.object), "attached twice");
    EXPECT_DEATH(ObfDereferenceObject(bottom.object), "dereferenced too often");
    top.Delete();
    // Deleted but referenced: the memory is there, and a second deletion is seen.
    PDEVICE_OBJECT object = IoGetAttachedDeviceReference(bottom.object);
    bottom.Delete();
    EXPECT_EQ(1, host::ReferencesOf(object));
    EXPECT_DEATH(IoDeleteDevice(object), "deleted twice");
    ObfDereferenceObject(object);
}

}  // namespace
