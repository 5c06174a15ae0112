// Disks and volumes as devices: translation, bounds, controls, and completions on other threads.
#include <set>
#include <thread>
#include <gtest/gtest.h>
#include "device.h"
#include "injector.h"
#include "kernel_host.h"
#include "machine/memory_disk.h"
#include "machine/stack_volume_io.h"
#include "platform/owners.h"
#include "request.h"

namespace {

using namespace machine;

// One disk of 1 MiB with a volume over bytes 64 KiB to 192 KiB, no filters.
class Devices : public ::testing::Test {
protected:
    Devices() { Build(512, false); }
    ~Devices() override { TearDownStack(); }

    void Build(std::uint32_t sector, bool removable) {
        host::PowerOn();
        medium_ = std::make_shared<MemoryDisk>(1 << 20, sector);
        PDRIVER_OBJECT disks = host::CreateDriver(u"\\Driver\\Disk");
        PDRIVER_OBJECT volumes = host::CreateDriver(u"\\Driver\\Volume");
        DiskDevice::Fill(disks);
        VolumeDevice::Fill(volumes);
        EXPECT_EQ(STATUS_SUCCESS, DiskDevice::Create(disks, medium_, 3, removable, disk_));
        EXPECT_EQ(STATUS_SUCCESS, VolumeDevice::Create(volumes, *disk_, 5, 64 << 10, 128 << 10, volume_));
        io_ = std::make_unique<StackVolumeIo>(*volume_);
    }
    void TearDownStack() {
        disk_->Stop();
        volume_->DropTargets();
        const host::LeakReport leaks = host::PowerOff();
        EXPECT_EQ(0, leaks.memory.irps);
        EXPECT_EQ(0, leaks.memory.mdls);
        EXPECT_EQ(2u, leaks.devices);
        io_.reset();
        volume_.reset();
        disk_.reset();
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

TEST_F(Devices, AnswersWhatTheDriverAsks) {
    for (const std::uint32_t sector : {512u, 4096u}) {
        const bool removable = sector == 4096;
        TearDownStack();
        Build(sector, removable);
        EXPECT_EQ(sector, volume_->Device()->SectorSize);
        EXPECT_EQ(removable, (volume_->Device()->Characteristics & FILE_REMOVABLE_MEDIA) != 0);
        VOLUME_DISK_EXTENTS extents{};
        host::Control control{IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS};
        control.output = &extents;
        control.outputLength = sizeof extents;
        EXPECT_EQ(STATUS_SUCCESS, host::SendControl(volume_->Device(), control).status);
        EXPECT_EQ(1u, extents.NumberOfDiskExtents);
        EXPECT_EQ(3u, extents.Extents[0].DiskNumber);
        EXPECT_EQ(64 << 10, extents.Extents[0].StartingOffset.QuadPart);
        EXPECT_EQ(128 << 10, extents.Extents[0].ExtentLength.QuadPart);
        control.outputLength = sizeof extents - 1;
        EXPECT_EQ(STATUS_BUFFER_TOO_SMALL, host::SendControl(volume_->Device(), control).status);
        DISK_GEOMETRY geometry{};
        control = {IOCTL_DISK_GET_DRIVE_GEOMETRY};
        control.output = &geometry;
        control.outputLength = sizeof geometry;
        EXPECT_EQ(STATUS_SUCCESS, host::SendControl(volume_->Device(), control).status) << "asked of the disk";
        EXPECT_EQ(sector, geometry.BytesPerSector);
        EXPECT_EQ(removable ? RemovableMedia : FixedMedia, geometry.MediaType);
        EXPECT_EQ(STATUS_INVALID_DEVICE_REQUEST,
                  host::SendControl(volume_->Device(), {IOCTL_DISK_SET_DRIVE_LAYOUT_EX}).status);
    }
    WCHAR text[64] = {};
    ULONG length = 0;
    EXPECT_EQ(STATUS_BUFFER_TOO_SMALL,
              IoGetDeviceProperty(volume_->Device(), DevicePropertyClassName, 0, nullptr, &length));
    ASSERT_EQ(STATUS_SUCCESS,
              IoGetDeviceProperty(volume_->Device(), DevicePropertyClassName, sizeof text, text, &length));
    EXPECT_EQ(u"Volume", std::u16string(text));
    ASSERT_EQ(STATUS_SUCCESS,
              IoGetDeviceProperty(disk_->Device(), DevicePropertyClassGuid, sizeof text, text, &length));
    EXPECT_EQ(u"{4D36E967-E325-11CE-BFC1-08002BE10318}", std::u16string(text));
}

TEST_F(Devices, SteppedCompletionsComeInTheOrderAsked) {
    disk_->SetCompletion(Completion::Stepped);
    struct Done {
        std::mutex lock;
        std::vector<int> order;
    } done;
    struct Tag {
        Done* done;
        int number;
    } tags[3];
    for (int i = 0; i < 3; ++i) {
        tags[i] = {&done, i};
        host::Request request;
        request.major = IRP_MJ_WRITE;
        request.offset = i * 512;
        request.length = 512;
        request.buffer = buffer_;
        host::SendAsync(
            volume_->Device(), request,
            [](void* context, host::Outcome outcome) {
                auto& tag = *static_cast<Tag*>(context);
                EXPECT_EQ(STATUS_SUCCESS, outcome.status);
                EXPECT_EQ(DISPATCH_LEVEL, KeGetCurrentIrql());
                std::lock_guard hold(tag.done->lock);
                tag.done->order.push_back(tag.number);
            },
            &tags[i]);
    }
    disk_->WaitForWaiting(3);
    EXPECT_FALSE(disk_->Release(3));
    EXPECT_TRUE(disk_->Release(1));
    EXPECT_EQ((std::vector<int>{1}), done.order);
    EXPECT_EQ(PASSIVE_LEVEL, KeGetCurrentIrql());
    disk_->ReleaseAll();
    EXPECT_EQ((std::vector<int>{1, 0, 2}), done.order);
}

TEST_F(Devices, PendedRequestsRunOnOtherThreads) {
    disk_->SetCompletion(Completion::Pended);
    std::mutex lock;
    std::set<std::thread::id> threads;
    disk_->SetHook([&](const DiskRequest&) {
        std::lock_guard hold(lock);
        threads.insert(std::this_thread::get_id());
        return STATUS_SUCCESS;
    });
    std::vector<std::thread> guests;
    for (int g = 0; g < 4; ++g) {
        guests.emplace_back([this, g] {
            std::vector<UCHAR> out(4096), in(4096);
            for (int i = 0; i < 200; ++i) {
                std::fill(out.begin(), out.end(), static_cast<UCHAR>(g * 50 + i));
                EXPECT_EQ(STATUS_SUCCESS, io_->Write(g * 8192, out.data(), 4096, nullptr));
                EXPECT_EQ(STATUS_SUCCESS, io_->Read(g * 8192, in.data(), 4096, nullptr));
                EXPECT_EQ(out, in);
            }
        });
    }
    // Modes may change under load; nothing is lost.
    for (int i = 0; i < 50; ++i) disk_->SetCompletion(i % 2 ? Completion::Pended : Completion::Immediate);
    for (std::thread& guest : guests) guest.join();
    disk_->SetCompletion(Completion::Pended);
    threads.clear();
    EXPECT_EQ(STATUS_SUCCESS, io_->Flush());
    EXPECT_FALSE(threads.contains(std::this_thread::get_id()));
}

TEST_F(Devices, FaultsHitTheRequestTheyAreMeantFor) {
    disk_->FailRequest(IRP_MJ_WRITE, 2, STATUS_VERIFY_REQUIRED);
    EXPECT_EQ(STATUS_SUCCESS, io_->Write(0, buffer_, 512, nullptr));
    EXPECT_EQ(STATUS_SUCCESS, io_->Read(0, buffer_, 512, nullptr));
    buffer_[0] = 1;
    EXPECT_EQ(STATUS_VERIFY_REQUIRED, io_->Write(0, buffer_, 512, nullptr));
    EXPECT_EQ(STATUS_SUCCESS, io_->Write(512, buffer_, 512, nullptr));
    UCHAR seen[512];
    ASSERT_EQ(STATUS_SUCCESS, medium_->Read(64 << 10, seen, 512));
    EXPECT_EQ(0, seen[0]) << "a failed write did not happen";
    host::FailCall(host::FaultBit(host::Fault::LowerIo), 1);
    EXPECT_EQ(STATUS_IO_DEVICE_ERROR, io_->Read(0, buffer_, 512, nullptr));
    EXPECT_EQ(STATUS_SUCCESS, io_->Read(0, buffer_, 512, nullptr));
    host::DisarmFaults();
    io_->Close();
    EXPECT_EQ(STATUS_DEVICE_POWERED_OFF, io_->Flush());
}

}  // namespace
