// The driver on the host kernel, above devices in memory: what the tests of its folders stand on.
#pragma once
#include <gtest/gtest.h>
#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>
#include "driver/dispatch.h"
#include "driver/volume_extension.h"
#include "platform/host/device.h"
#include "platform/host/injector.h"
#include "platform/host/kernel_host.h"
#include "platform/host/registry_store.h"
#include "platform/host/request.h"
#include "platform/host/thread.h"

namespace support {

class MemoryRegistry : public host::RegistryStore {
public:
    NTSTATUS CreateKey(const std::u16string&) override { return STATUS_SUCCESS; }
    NTSTATUS Query(const std::u16string&, const std::u16string& name, host::RegistryValue& value) override {
        const std::lock_guard lock(lock_);
        const auto found = values.find(name);
        if (found == values.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
        value = found->second;
        return STATUS_SUCCESS;
    }
    NTSTATUS Set(const std::u16string&, const std::u16string& name, const host::RegistryValue& value) override {
        const std::lock_guard lock(lock_);
        values[name] = value;
        return STATUS_SUCCESS;
    }
    NTSTATUS Delete(const std::u16string&, const std::u16string& name) override {
        const std::lock_guard lock(lock_);
        return values.erase(name) != 0 ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
    }
    NTSTATUS Flush() override { return STATUS_SUCCESS; }

    std::map<std::u16string, host::RegistryValue> values;

private:
    std::mutex lock_;
};

struct DeviceOptions {
    const char16_t* name = u"\\Device\\HarddiskVolume1";
    bool isDisk = false;
    SIZE_T bytes = 0x800000;
    USHORT sectorSize = 512;
    ULONG characteristics = 0;
    std::vector<ULONG> disks = {0};  // the disks that the volume's extents lie on
};

// A volume or disk device in memory. It remembers the transfers that reach it.
class MemoryDevice {
public:
    struct Transfer {
        bool isWrite;
        LONGLONG offset;
        ULONG length;
        bool operator==(const Transfer&) const = default;
    };

    MemoryDevice(PDRIVER_OBJECT driver, const DeviceOptions& options)
        : data(options.bytes), disks_(options.disks) {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, options.name);
        EXPECT_EQ(STATUS_SUCCESS, IoCreateDevice(driver, sizeof(MemoryDevice*), &name, FILE_DEVICE_DISK,
                                                 options.characteristics, FALSE, &object));
        object->Flags |= DO_DIRECT_IO;
        object->SectorSize = options.sectorSize;
        *static_cast<MemoryDevice**>(object->DeviceExtension) = this;
        host::SetDeviceProperty(object, DevicePropertyClassName, options.isDisk ? u"DiskDrive" : u"Volume");
        host::SetDeviceProperty(object, DevicePropertyClassGuid,
                                options.isDisk ? u"{4D36E967-E325-11CE-BFC1-08002BE10318}"
                                               : u"{71A27CDD-812A-11D0-BEC7-08002BE2092F}");
        object->Flags &= ~DO_DEVICE_INITIALIZING;
    }

    static NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp) {
        return (*static_cast<MemoryDevice**>(device->DeviceExtension))->Answer(irp);
    }

    std::vector<Transfer> Transfers() {
        const std::lock_guard lock(lock_);
        return transfers_;
    }
    void ForgetTransfers() {
        const std::lock_guard lock(lock_);
        transfers_.clear();
    }

    PDEVICE_OBJECT object = nullptr;
    std::vector<UCHAR> data;
    // Asked before each transfer; a status other than STATUS_SUCCESS is its answer, and nothing is moved.
    std::function<NTSTATUS(const Transfer&)> verdict;

private:
    NTSTATUS Answer(PIRP irp) {
        const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        irp->IoStatus = {};
        switch (stack->MajorFunction) {
            case IRP_MJ_READ:
            case IRP_MJ_WRITE:
                Move(irp, stack);
                break;
            case IRP_MJ_DEVICE_CONTROL:
                Control(irp, stack);
                break;
            default:
                break;
        }
        const NTSTATUS status = irp->IoStatus.Status;
        IofCompleteRequest(irp, IO_NO_INCREMENT);
        return status;
    }

    void Move(PIRP irp, PIO_STACK_LOCATION stack) {
        const bool isWrite = stack->MajorFunction == IRP_MJ_WRITE;
        const Transfer transfer = {isWrite, stack->Parameters.Read.ByteOffset.QuadPart,
                                   stack->Parameters.Read.Length};
        irp->IoStatus.Status = verdict ? verdict(transfer) : STATUS_SUCCESS;
        const std::lock_guard lock(lock_);
        transfers_.push_back(transfer);
        if (irp->IoStatus.Status != STATUS_SUCCESS || transfer.length == 0) return;
        const auto end = static_cast<ULONGLONG>(transfer.offset) + transfer.length;
        if (transfer.offset < 0 || end > data.size()) {
            irp->IoStatus.Status = STATUS_INVALID_PARAMETER;
            return;
        }
        void* buffer = MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
        if (isWrite)
            std::memcpy(data.data() + transfer.offset, buffer, transfer.length);
        else
            std::memcpy(buffer, data.data() + transfer.offset, transfer.length);
        irp->IoStatus.Information = transfer.length;
    }

    void Control(PIRP irp, PIO_STACK_LOCATION stack) {
        irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
        if (stack->Parameters.DeviceIoControl.IoControlCode != IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS) return;
        auto* extents = static_cast<VOLUME_DISK_EXTENTS*>(irp->AssociatedIrp.SystemBuffer);
        extents->NumberOfDiskExtents = static_cast<ULONG>(disks_.size());
        for (SIZE_T i = 0; i < disks_.size(); ++i) extents->Extents[i] = {disks_[i], {}, {}};
        irp->IoStatus.Status = STATUS_SUCCESS;
        irp->IoStatus.Information =
            offsetof(VOLUME_DISK_EXTENTS, Extents) + disks_.size() * sizeof(DISK_EXTENT);
    }

    std::vector<ULONG> disks_;
    std::vector<Transfer> transfers_;
    std::mutex lock_;
};

// A file object as a file system's requests carry it.
struct TestFile {
    explicit TestFile(std::u16string path) : name(std::move(path)) {
        object.FileName = {static_cast<USHORT>(name.size() * sizeof(WCHAR)),
                           static_cast<USHORT>(name.size() * sizeof(WCHAR)), name.data()};
    }
    TestFile(const TestFile&) = delete;
    std::u16string name;
    FILE_OBJECT object{};
};

// Power is on and the driver is loaded while a test runs.
class DriverTest : public testing::Test {
protected:
    void SetUp() override {
        host::PowerOn();
        host::SetRegistryStore(&registry);
        ASSERT_EQ(STATUS_SUCCESS, host::LoadDriver(DriverEntry, u"\\Driver\\kvr", driver));
        lower = host::CreateDriver(u"\\Driver\\memory");
        for (PDRIVER_DISPATCH& slot : lower->MajorFunction) slot = MemoryDevice::Dispatch;
    }
    void TearDown() override {
        host::DisarmFaults();
        host::JoinSystemThreads();
        const host::LeakReport report = host::PowerOff();
        EXPECT_EQ(0, report.memory.irps);
        EXPECT_EQ(0, report.memory.mdls);
        EXPECT_EQ(0, report.memory.lockedMdls);
    }

    MemoryDevice& AddDevice(const DeviceOptions& options = {}) {
        devices.push_back(std::make_unique<MemoryDevice>(lower, options));
        PDEVICE_OBJECT pdo = devices.back()->object;
        EXPECT_EQ(STATUS_SUCCESS, host::AddDeviceToStack(driver, pdo));
        startStatus = host::SendPnp(pdo, IRP_MN_START_DEVICE);
        return *devices.back();
    }
    static PVOLUME_EXTENSION RecordOf(MemoryDevice& device) {
        return VolumeOf(host::TopOfStack(device.object));
    }

    static host::Outcome Send(PVOLUME_EXTENSION volume, UCHAR major, LONGLONG offset, std::vector<UCHAR>& data,
                              PFILE_OBJECT file = nullptr) {
        host::Request request;
        request.major = major;
        request.offset = offset;
        request.length = static_cast<ULONG>(data.size());
        request.buffer = data.data();
        request.originalFile = file;
        return host::Send(volume->FilterDevice, request);
    }
    static host::Outcome Write(PVOLUME_EXTENSION volume, LONGLONG offset, std::vector<UCHAR> data,
                               PFILE_OBJECT file = nullptr) {
        return Send(volume, IRP_MJ_WRITE, offset, data, file);
    }

    PDRIVER_OBJECT driver = nullptr;
    PDRIVER_OBJECT lower = nullptr;
    MemoryRegistry registry;
    std::vector<std::unique_ptr<MemoryDevice>> devices;
    NTSTATUS startStatus = STATUS_SUCCESS;
};

}  // namespace support
