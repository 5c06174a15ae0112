// Devices: stacks, names, properties, the managers' requests, and their end.
#include "host_stub.h"
#include "platform/host/injector.h"
#include "platform/host/user_mode.h"

namespace {

using stub::Complete;
using stub::Device;
using stub::PassDown;

NTSTATUS Succeed(PDEVICE_OBJECT, PIRP irp) {
    return Complete(irp, STATUS_SUCCESS);
}

class HostDevices : public stub::Kernel {};
using HostDevicesDeath = HostDevices;

std::u16string NameOf(PDEVICE_OBJECT device, NTSTATUS expected = STATUS_SUCCESS, ULONG length = 256) {
    alignas(OBJECT_NAME_INFORMATION) char buffer[256];
    auto* info = reinterpret_cast<POBJECT_NAME_INFORMATION>(buffer);
    info->Name = {};
    ULONG needed = 0;
    EXPECT_EQ(expected, ObQueryNameString(device, info, length, &needed));
    return {info->Name.Buffer, info->Name.Length / sizeof(WCHAR)};
}

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

    EXPECT_EQ(u"\\Device\\Disk0", NameOf(disk.object));
    EXPECT_EQ(u"", NameOf(first.object));
    NameOf(disk.object, STATUS_INFO_LENGTH_MISMATCH, sizeof(UNICODE_STRING) + 26);

    second.Delete();
    EXPECT_EQ(first.object, host::TopOfStack(disk.object));
    disk.object->Flags |= DO_DEVICE_INITIALIZING;
    first.Delete();
    PDEVICE_OBJECT early = nullptr;
    ASSERT_EQ(STATUS_SUCCESS, IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_DISK, 0, FALSE, &early));
    EXPECT_EQ(nullptr, IoAttachDeviceToDeviceStack(early, disk.object));
    IoDeleteDevice(early);
}

TEST_F(HostDevices, PropertiesAreTerminatedStrings) {
    Device pdo(driver, Succeed);
    ULONG length = 77;
    EXPECT_EQ(STATUS_INVALID_DEVICE_REQUEST,
              IoGetDeviceProperty(pdo.object, DevicePropertyClassName, 0, nullptr, &length));
    host::SetDeviceProperty(pdo.object, DevicePropertyClassName, u"Volume");
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND,
              IoGetDeviceProperty(pdo.object, DevicePropertyClassGuid, 0, nullptr, &length));
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL,
              IoGetDeviceProperty(pdo.object, DevicePropertyClassName, 0, nullptr, &length));
    ASSERT_EQ(14u, length);
    char16_t text[7];
    EXPECT_EQ(STATUS_SUCCESS,
              IoGetDeviceProperty(pdo.object, DevicePropertyClassName, sizeof text, text, &length));
    EXPECT_STREQ("Volume", std::string(text, text + 7).c_str());
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

TEST_F(HostDevices, ManagersSendToTheTopAndARemovalMayDeleteIt) {
    Device pdo(driver, [](PDEVICE_OBJECT, PIRP irp) {
        return Complete(irp, IoGetCurrentIrpStackLocation(irp)->MajorFunction == IRP_MJ_POWER
                                 ? STATUS_SUCCESS
                                 : irp->IoStatus.Status);
    });
    Device filter(
        driver,
        [&](PDEVICE_OBJECT device, PIRP irp) {
            PIO_STACK_LOCATION at = IoGetCurrentIrpStackLocation(irp);
            if (at->MajorFunction == IRP_MJ_POWER) {
                EXPECT_EQ(PowerDeviceD3, at->Parameters.Power.State.DeviceState);
                PoStartNextPowerIrp(irp);
                IoSkipCurrentIrpStackLocation(irp);
                return PoCallDriver(stub::Of(device).target, irp);
            }
            if (at->MinorFunction != IRP_MN_REMOVE_DEVICE) return PassDown(device, irp);
            filter.Delete();
            return Complete(irp, STATUS_SUCCESS);
        },
        pdo.object);
    POWER_STATE state;
    state.DeviceState = PowerDeviceD3;
    EXPECT_EQ(STATUS_SUCCESS, host::SendPower(pdo.object, IRP_MN_SET_POWER, DevicePowerState, state));
    EXPECT_EQ(STATUS_NOT_SUPPORTED, host::SendPnp(pdo.object, IRP_MN_START_DEVICE));
    EXPECT_EQ(STATUS_SUCCESS, host::SendPnp(pdo.object, IRP_MN_REMOVE_DEVICE));
    EXPECT_EQ(1u, host::DeviceCount());
    EXPECT_EQ(pdo.object, host::TopOfStack(pdo.object));
}

PDEVICE_OBJECT gLeft;

TEST_F(HostDevices, LoadingADriver) {
    PDRIVER_OBJECT loaded = nullptr;
    const auto entry = [](PDRIVER_OBJECT made, PUNICODE_STRING path) {
        EXPECT_EQ(u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\some",
                  std::u16string(path->Buffer, path->Length / 2));
        return IoCreateDevice(made, 0, nullptr, FILE_DEVICE_DISK, 0, FALSE, &gLeft);
    };
    ASSERT_EQ(STATUS_SUCCESS, host::LoadDriver(entry, u"\\Driver\\some", loaded));
    // A slot that the driver did not fill.
    EXPECT_EQ(STATUS_INVALID_DEVICE_REQUEST, host::Send(gLeft, {.major = IRP_MJ_FLUSH_BUFFERS}).status);
    EXPECT_EQ(STATUS_SUCCESS, host::AddDeviceToStack(loaded, gLeft));
    IoDeleteDevice(gLeft);
    const auto refuses = [](PDRIVER_OBJECT, PUNICODE_STRING) { return STATUS_UNSUCCESSFUL; };
    EXPECT_EQ(STATUS_UNSUCCESSFUL, host::LoadDriver(refuses, u"\\Driver\\some", loaded));
    EXPECT_EQ(nullptr, loaded);
    const auto leaves = [](PDRIVER_OBJECT made, PUNICODE_STRING) {
        (void)IoCreateDevice(made, 0, nullptr, FILE_DEVICE_DISK, 0, FALSE, &gLeft);
        return STATUS_UNSUCCESSFUL;
    };
    EXPECT_DEATH((void)host::LoadDriver(leaves, u"\\Driver\\some", loaded), "failed and left a device");
}

TEST_F(HostDevices, ProgramsOpenControlAndClose) {
    std::vector<int> majors;
    NTSTATUS create = STATUS_SUCCESS;
    Device device(
        driver,
        [&](PDEVICE_OBJECT, PIRP irp) {
            PIO_STACK_LOCATION at = IoGetCurrentIrpStackLocation(irp);
            EXPECT_EQ(UserMode, irp->RequestorMode);
            EXPECT_NE(nullptr, at->FileObject);
            majors.push_back(at->MajorFunction);
            return Complete(irp, at->MajorFunction == IRP_MJ_CREATE ? create : STATUS_SUCCESS);
        },
        nullptr, u"\\Device\\control");
    PFILE_OBJECT file = nullptr;
    EXPECT_EQ(STATUS_OBJECT_NAME_NOT_FOUND, host::OpenDevice(u"\\Device\\nothing", GENERIC_READ, file));
    EXPECT_EQ(STATUS_OBJECT_PATH_NOT_FOUND, host::OpenDevice(u"\\Device\\control\\x", GENERIC_READ, file));
    device.object->Flags |= DO_DEVICE_INITIALIZING;
    EXPECT_EQ(STATUS_NO_SUCH_DEVICE, host::OpenDevice(u"\\Device\\control", GENERIC_READ, file));
    device.object->Flags &= ~DO_DEVICE_INITIALIZING;
    create = STATUS_DEVICE_ALREADY_ATTACHED;
    EXPECT_EQ(create, host::OpenDevice(u"\\Device\\control", GENERIC_READ, file));
    EXPECT_EQ(nullptr, file);
    EXPECT_EQ(std::vector<int>{IRP_MJ_CREATE}, majors);

    create = STATUS_SUCCESS;
    device.object->Flags |= DO_EXCLUSIVE;
    ASSERT_EQ(create, host::OpenDevice(u"\\device\\CONTROL", GENERIC_READ, file));
    PFILE_OBJECT second = nullptr;
    EXPECT_EQ(STATUS_ACCESS_DENIED, host::OpenDevice(u"\\Device\\control", GENERIC_READ, second));
    majors.clear();
    ULONG returned = 0;
    const auto control = [&](ULONG access) {
        return host::DeviceIoControl(file, CTL_CODE(8, 0x800, METHOD_BUFFERED, access), nullptr, 0, nullptr, 0,
                                     returned);
    };
    EXPECT_EQ(STATUS_SUCCESS, control(FILE_READ_ACCESS));
    EXPECT_EQ(STATUS_ACCESS_DENIED, control(FILE_READ_ACCESS | FILE_WRITE_ACCESS));
    host::CloseDevice(file);
    EXPECT_EQ((std::vector<int>{IRP_MJ_DEVICE_CONTROL, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}), majors);
    ASSERT_EQ(STATUS_SUCCESS, host::OpenDevice(u"\\Device\\control", GENERIC_READ, file));
    // Left open: power-off takes it.
    device.Delete();
    EXPECT_EQ(1u, host::DeviceCount());
    host::PowerOff();
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

TEST_F(HostDevices, CreationFails) {
    PDEVICE_OBJECT made = nullptr;
    host::FailCall(host::FaultBit(host::Fault::CreateDevice), 1);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES,
              IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_DISK, 0, FALSE, &made));
    host::DisarmFaults();
    Device named(driver, Succeed, nullptr, u"\\Device\\one");
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, u"\\Device\\ONE");
    EXPECT_EQ(STATUS_OBJECT_NAME_COLLISION,
              IoCreateDevice(driver, 0, &name, FILE_DEVICE_DISK, 0, FALSE, &made));
    EXPECT_EQ(nullptr, made);
    EXPECT_EQ(1u, host::DeviceCount());
}

}  // namespace
