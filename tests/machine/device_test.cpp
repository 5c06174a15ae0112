// Disks and volumes as devices: translation, bounds, buffers and faults.
#include <gtest/gtest.h>
#include "platform/host/io/device.h"
#include "platform/host/check/injector.h"
#include "platform/host/kernel_host.h"
#include "tests/doubles/memory_disk.h"
#include "machine/files/stack_volume_io.h"
#include "platform/owners.h"
#include "platform/host/io/request.h"

namespace {

using namespace machine;

// One disk of 1 MiB with a volume over bytes 64 KiB to 192 KiB, no filters.
class Devices : public ::testing::Test {
protected:
    Devices() {
        host::PowerOn();
        medium_ = std::make_shared<MemoryDisk>(1 << 20, 512);
        PDRIVER_OBJECT disks = host::CreateDriver(u"\\Driver\\Disk");
        PDRIVER_OBJECT volumes = host::CreateDriver(u"\\Driver\\Volume");
        DiskDevice::Fill(disks);
        VolumeDevice::Fill(volumes);
        EXPECT_EQ(STATUS_SUCCESS, DiskDevice::Create(disks, medium_, 3, false, disk_));
        EXPECT_EQ(STATUS_SUCCESS, VolumeDevice::Create(volumes, *disk_, 5, 64 << 10, 128 << 10, volume_));
        io_ = std::make_unique<StackVolumeIo>(*volume_);
    }
    ~Devices() override {
        disk_->Stop();
        volume_->DropTargets();
        const host::LeakReport leaks = host::PowerOff();
        EXPECT_EQ(0, leaks.memory.irps);
        EXPECT_EQ(0, leaks.memory.mdls);
        EXPECT_EQ(2u, leaks.devices);
    }
    host::Outcome Send(PDEVICE_OBJECT device, UCHAR major, LONGLONG offset, ULONG length,
                       host::Pages pages = host::Pages::Locked) {
        host::Request request;
        request.major = major;
        request.offset = offset;
        request.length = length;
        request.buffer = buffer_;
        request.pages = pages;
        return host::Send(device, request);
    }

    std::shared_ptr<MemoryDisk> medium_;
    std::unique_ptr<DiskDevice> disk_;
    std::unique_ptr<VolumeDevice> volume_;
    std::unique_ptr<StackVolumeIo> io_;
    UCHAR buffer_[8192] = {};
};

TEST_F(Devices, VolumesTranslateAndKeepTheirBounds) {
    buffer_[0] = 0x42;
    EXPECT_EQ(STATUS_SUCCESS, io_->Write(4096, buffer_, 512, nullptr));
    UCHAR seen[512];
    ASSERT_EQ(STATUS_SUCCESS, medium_->Read((64 << 10) + 4096, seen, 512));
    EXPECT_EQ(0x42, seen[0]);
    const LONGLONG end = 128 << 10;
    const std::pair<LONGLONG, ULONG> refused[] = {{end, 512}, {end - 512, 1024},      {-512, 512},   {1, 512},
                                                  {0, 100},   {INT64_MAX - 511, 512}, {end + 512, 0}};
    for (const auto& [offset, length] : refused) {
        EXPECT_EQ(STATUS_INVALID_PARAMETER, Send(volume_->Device(), IRP_MJ_WRITE, offset, length).status)
            << offset;
    }
    EXPECT_EQ(STATUS_SUCCESS, Send(volume_->Device(), IRP_MJ_READ, end, 0).status);
    EXPECT_EQ(512u, Send(volume_->Device(), IRP_MJ_READ, end - 512, 512).information);
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Send(disk_->Device(), IRP_MJ_WRITE, 1 << 20, 512).status);
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Send(disk_->Device(), IRP_MJ_READ, -512, 1024).status);
}

TEST_F(Devices, BuffersAreLockedWhereNobodyHas) {
    EXPECT_EQ(STATUS_SUCCESS, Send(volume_->Device(), IRP_MJ_WRITE, 0, 512, host::Pages::Unlocked).status);
    EXPECT_EQ(STATUS_ACCESS_VIOLATION, Send(volume_->Device(), IRP_MJ_READ, 0, 512, host::Pages::Bad).status);
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Send(volume_->Device(), IRP_MJ_READ, 0, 512, host::Pages::None).status);
}

TEST_F(Devices, AFailedWriteDidNotHappenAndNothingIsSentAfterTheClose) {
    buffer_[0] = 1;
    host::FailCall(host::FaultBit(host::Fault::LowerIo), 1);
    EXPECT_EQ(STATUS_IO_DEVICE_ERROR, io_->Write(0, buffer_, 512, nullptr));
    EXPECT_EQ(STATUS_SUCCESS, io_->Read(0, buffer_, 512, nullptr));
    EXPECT_EQ(0, buffer_[0]);
    host::DisarmFaults();
    io_->Close();
    EXPECT_EQ(STATUS_DEVICE_POWERED_OFF, io_->Flush());
}

}  // namespace
