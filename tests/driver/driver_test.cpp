// The driver's frame: loading, a device's life under the filter, and what waits for whom.
#include <atomic>
#include "driver/create_close.h"
#include "driver/shutdown.h"
#include "driver/start.h"
#include "formats/saved_map.h"
#include "platform/host/io/device.h"
#include "platform/host/rtl/version.h"
#include "redirect/write_cache.h"
#include "swap/provision.h"
#include "tests/support/loaded_driver.h"

namespace {

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
    EXPECT_EQ(&AddDeviceStandBy, kvr->DriverExtension->AddDevice);
    FilteredStack stack(driver, kvr, {});
    EXPECT_EQ(STATUS_SUCCESS, stack.added);
    EXPECT_FALSE(stack.IsFiltered());
    EXPECT_EQ(STATUS_SUCCESS, host::Send(gControlDevice, {.major = IRP_MJ_CLEANUP}).status);
    EXPECT_EQ(STATUS_INVALID_DEVICE_REQUEST, host::Send(gControlDevice, {.major = IRP_MJ_READ}).status);
}

// The device, the link, and the link once more behind one that an earlier load left.
TEST_F(Entry, WhatCannotBeMadeEndsTheLoad) {
    constexpr auto kind = host::FaultBit(host::Fault::CreateDevice);
    host::FailCall(kind, 1);
    EXPECT_FALSE(NT_SUCCESS(Load()));
    host::FailFromCall(kind, 2);
    EXPECT_FALSE(NT_SUCCESS(Load()));
    EXPECT_EQ(nullptr, gControlDevice) << "nothing stays behind";
    host::DisarmFaults();
    UNICODE_STRING link = Counted(u"\\DosDevices\\kvr"), old = Counted(u"\\Device\\old");
    ASSERT_EQ(STATUS_SUCCESS, IoCreateSymbolicLink(&link, &old));
    const auto mark = host::DebugMark();
    gControlOpen = TRUE;  // when the power failed
    EXPECT_EQ(STATUS_SUCCESS, Load());
    EXPECT_EQ(1u, TimesSaid(mark, "Kvr!RtlGetVersion: dwMajorVersion=10, "));
    PFILE_OBJECT tool = nullptr;
    EXPECT_EQ(STATUS_SUCCESS, host::OpenDevice(u"\\DosDevices\\kvr", FILE_READ_DATA, tool));
    host::CloseDevice(tool);
}

TEST_F(Entry, MemoryIsNeverExecutableWhereTheSystemKnowsHow) {
    const struct {
        ULONG major, minor;
        POOL_TYPE type;
    } versions[] = {{5, 2, NonPagedPool},
                    {6, 1, NonPagedPool},
                    {6, 2, NonPagedPoolNx},
                    {6, 3, NonPagedPoolNx},
                    {10, 0, NonPagedPoolNx}};
    for (const auto& v : versions) {
        host::SetOsVersion(v.major, v.minor);
        ASSERT_EQ(STATUS_SUCCESS, Load());
        EXPECT_EQ(v.type, gPoolType) << v.major << "." << v.minor;
        EXPECT_EQ(v.type == NonPagedPoolNx, (MappingPriority() & MdlMappingNoExecute) != 0);
        IoDeleteDevice(gControlDevice);
    }
    gControlDevice = nullptr;
}

class Life : public LoadedDriver {};

TEST_F(Life, StartTellsWhatTheDeviceIs) {
    FilteredStack& stack = Add({.name = u"\\Device\\V2", .className = u"VOLUME", .sectorSize = 4096});
    EXPECT_EQ(0u, stack.volume->MediaType);
    EXPECT_EQ(kVolumeSignature, stack.volume->Signature);
    stack.extents.push_back({3, {.QuadPart = 0x200}, {.QuadPart = 0x400}});
    stack.claimedExtents = 2;
    stack.volume->VolumeName.Length = 0;  // not named yet when it was added
    ASSERT_EQ(STATUS_SUCCESS, stack.Start());
    EXPECT_EQ(2 * 10, stack.volume->VolumeName.Length);
    EXPECT_EQ(ULONG{FixedMedia}, stack.volume->MediaType);
    EXPECT_EQ(4096u, stack.volume->BytesPerSector);
    EXPECT_TRUE(stack.volume->IsVolume && !stack.volume->IsDisk);
    EXPECT_TRUE(stack.volume->SuppressReadTrace && stack.volume->SuppressWriteTrace &&
                stack.volume->SuppressControlTrace);
    EXPECT_EQ(2u, stack.volume->VolumeDiskExtents.NumberOfDiskExtents);
    EXPECT_TRUE(Said("Kvr!\tExtent[1]: 3 [200-600, length 400]"));
    EXPECT_FALSE(Said("Kvr!\tExtent[2]"));
    const struct {
        ULONG claimed;
        SIZE_T given;
        ULONG kept;
    } counts[] = {{0xFFFFFFFF, 1, 1}, {1, 2, 1}, {0xFFFFFFFF, kMaxVolumeExtents, kMaxVolumeExtents}, {7, 0, 0}};
    const auto blocks = host::PoolUsage(kPoolTag).blocks;
    for (const auto& c : counts) {
        stack.claimedExtents = c.claimed;
        stack.extents.resize(c.given);
        ASSERT_EQ(STATUS_SUCCESS, stack.Start());
        EXPECT_EQ(c.kept, stack.volume->VolumeDiskExtents.NumberOfDiskExtents);
    }
    EXPECT_EQ(blocks, host::PoolUsage(kPoolTag).blocks) << "a second start takes nothing more";
    for (const auto fault : {host::Fault::Allocate, host::Fault::BuildRequest}) {
        host::FailFromCall(host::FaultBit(fault), 1);
        EXPECT_FALSE(GetVolumeExtents(stack.volume));
        EXPECT_EQ(fault == host::Fault::BuildRequest, IsVolumeClassDevice(stack.pdo.object) != FALSE);
        host::DisarmFaults();
    }
    EXPECT_TRUE(GetVolumeExtents(stack.volume));
    stack.tellsExtents = false;
    stack.answer = [](PIRP irp, PIO_STACK_LOCATION) {
        return stub::Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    };
    EXPECT_FALSE(GetVolumeExtents(stack.volume));
    EXPECT_TRUE(Said("VOLUME_DISK_EXTENTS 0x"));
    const struct {
        const char16_t *className, *classGuid;
        bool isVolume, isDisk;
    } classes[] = {{u"", u"", false, false},
                   {u"Volumes", u"{4D36E967-E325-11CE-BFC1-08002BE1031}", false, false},
                   {u"DiskDrive", kDiskClass, false, true}};
    for (const auto& c : classes) {
        FilteredStack& other =
            AddStarted({.name = nullptr, .className = c.className, .classGuid = c.classGuid});
        EXPECT_EQ(c.isVolume, other.volume->IsVolume != FALSE);
        EXPECT_EQ(c.isDisk, other.volume->IsDisk != FALSE);
        EXPECT_EQ(0u, other.volume->VolumeDiskExtents.NumberOfDiskExtents);
        EXPECT_EQ(&other.volume->ListEntry, gVolumeList.Blink);
    }
}

TEST_F(Life, RemovableVolumesAreShownReadOnlyOrHidden) {
    const struct {
        ULONG flags;  // of the volume's entry; ~0 for none
        BOOLEAN enabled, named, protectDefault, hideDefault;
        NTSTATUS status;
        bool readOnly, isProtected, invisible;
    } cases[] = {
        {~0u, TRUE, TRUE, FALSE, FALSE, STATUS_SUCCESS, false, false, false},
        {~0u, TRUE, TRUE, TRUE, FALSE, STATUS_SUCCESS, false, true, false},
        {~0u, TRUE, TRUE, TRUE, TRUE, STATUS_ACCESS_DENIED, false, true, true},
        {~0u, FALSE, TRUE, TRUE, TRUE, STATUS_SUCCESS, false, false, false},
        {~0u, TRUE, FALSE, TRUE, TRUE, STATUS_SUCCESS, false, true, true},  // no name to hide it by
        {0x000, TRUE, TRUE, TRUE, TRUE, STATUS_SUCCESS, false, false, false},
        {0x101, TRUE, TRUE, FALSE, FALSE, STATUS_SUCCESS, true, true, false},
        {0x003, TRUE, TRUE, FALSE, FALSE, STATUS_ACCESS_DENIED, true, true, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        const std::u16string name = u"\\Device\\Stick" + std::u16string(1, char16_t(u'A' + (&c - cases)));
        UNICODE_STRING id = Counted(name.c_str());
        if (c.flags != ~0u) {
            EXPECT_EQ(STATUS_SUCCESS, AddProtectedVolume(&id, c.flags));
        }
        gTesselEnabled = c.enabled;
        gRVProtect = c.protectDefault;
        gRVInvisible = c.hideDefault;
        FilteredStack& stack = Add({.name = c.named ? name.c_str() : nullptr,
                                    .characteristics = FILE_REMOVABLE_MEDIA,
                                    .sectorSize = 4096});
        stack.volume->IsProtected = FALSE;
        EXPECT_EQ(c.status, stack.Start());
        EXPECT_EQ(1, stack.Arrived(IRP_MJ_PNP, IRP_MN_START_DEVICE)) << "the devices below start in any case";
        EXPECT_EQ(c.readOnly, (stack.filter->Characteristics & FILE_READ_ONLY_DEVICE) != 0);
        EXPECT_EQ(c.isProtected, stack.volume->IsProtected != FALSE);
        EXPECT_EQ(c.invisible, stack.volume->IsInvisible != FALSE);
        EXPECT_EQ(512u, stack.volume->BytesPerSector);
    }
}

TEST_F(Life, ANeededVolumeIsNotGivenUp) {
    FilteredStack& stack = *device;
    MAP_LOCATION_ENTRY run{};
    const struct {
        bool isProtected, isVolume;
        ULONG media;
        LONGLONG config;
        bool map, needed;
    } cases[] = {{false, true, FixedMedia, 0, false, false},   {true, true, FixedMedia, 0, false, true},
                 {false, true, FixedMedia, 1, false, true},    {false, true, FixedMedia, 0, true, true},
                 {true, true, RemovableMedia, 1, true, false}, {true, false, FixedMedia, 1, true, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        volume->IsProtected = c.isProtected;
        volume->IsVolume = c.isVolume;
        volume->MediaType = c.media;
        volume->PreloadConfigLocation[0] = c.config;
        volume->MapLocation = c.map ? &run : nullptr;
        const int seen = stack.Arrived(IRP_MJ_PNP, IRP_MN_QUERY_REMOVE_DEVICE);
        const NTSTATUS refusal = STATUS_INSUFFICIENT_RESOURCES;
        EXPECT_EQ(c.needed ? refusal : STATUS_SUCCESS,
                  host::SendPnp(stack.pdo.object, IRP_MN_QUERY_REMOVE_DEVICE));
        EXPECT_EQ(seen + !c.needed, stack.Arrived(IRP_MJ_PNP, IRP_MN_QUERY_REMOVE_DEVICE));
        if (c.needed) {
            EXPECT_EQ(refusal, host::SendPnp(stack.pdo.object, IRP_MN_REMOVE_DEVICE));
            EXPECT_TRUE(stack.IsFiltered() && IsVolumeInList(volume));
        }
        volume->MapLocation = nullptr;
    }
    volume->IsVolume = TRUE;
    volume->MediaType = FixedMedia;
}

TEST_F(Life, RemovalWaitsForThreads) {
    FilteredStack& stack = AddStarted({.name = u"\\Device\\V2"});
    std::atomic<bool> removed = false;
    host::ThreadGate gate;
    ASSERT_EQ(STATUS_SUCCESS, StartArmThread(stack.volume));
    std::thread remover([&] {
        EXPECT_EQ(STATUS_SUCCESS, host::SendPnp(stack.pdo.object, IRP_MN_REMOVE_DEVICE));
        removed = true;
    });
    while (stack.Flush() != STATUS_DELETE_PENDING) std::this_thread::yield();  // until the removal waits
    EXPECT_EQ(STATUS_DELETE_PENDING, StartArmThread(stack.volume)) << "nothing new is started on the record";
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    EXPECT_FALSE(removed) << "the thread still uses the record";
    EXPECT_TRUE(IsVolumeInList(stack.volume));
    gate.ReleaseAll();
    remover.join();
    EXPECT_FALSE(stack.IsFiltered());
}

// Each uses the record while the lower device has the request.
TEST_F(Life, AShutdownTakesADiskFromNoRequest) {
    const struct {
        UCHAR major, minor;
    } kinds[] = {{IRP_MJ_POWER, IRP_MN_SET_POWER},
                 {IRP_MJ_PNP, IRP_MN_QUERY_CAPABILITIES},
                 {IRP_MJ_PNP, IRP_MN_START_DEVICE},
                 {IRP_MJ_CLOSE, 0},
                 {IRP_MJ_CLEANUP, 0},
                 {IRP_MJ_DEVICE_CONTROL, 0}};
    for (const auto& kind : kinds) {
        SCOPED_TRACE(int{kind.major});
        FilteredStack& disk = AddDisk(u"\\Device\\Harddisk1\\DR1");
        std::atomic<bool> inside = false, open = false;
        disk.answer = [&](PIRP irp, PIO_STACK_LOCATION location) {
            if (location->MajorFunction == kind.major) inside = true;
            while (location->MajorFunction == kind.major && !open) std::this_thread::yield();
            return stub::Complete(irp, STATUS_SUCCESS);
        };
        const auto send = [&] {
            return host::Send(disk.filter, {.major = kind.major, .minor = kind.minor}).status;
        };
        std::thread request([&] { EXPECT_EQ(STATUS_SUCCESS, send()); });
        while (!inside) std::this_thread::yield();
        std::thread shutdown([&] { EXPECT_EQ(STATUS_SUCCESS, host::SendShutdown(disk.pdo.object)); });
        while (disk.IsFiltered() && disk.Flush() != STATUS_DELETE_PENDING) std::this_thread::yield();
        EXPECT_TRUE(disk.IsFiltered()) << "the request is still below";
        if (disk.IsFiltered()) {
            EXPECT_EQ(STATUS_DELETE_PENDING, send());
            EXPECT_EQ(STATUS_DELETE_PENDING, host::SendPnp(disk.pdo.object, IRP_MN_REMOVE_DEVICE));
        }
        open = true;
        request.join();
        shutdown.join();
        EXPECT_FALSE(disk.IsFiltered());
        EXPECT_EQ(&volume->ListEntry, gVolumeList.Blink);
        stacks.pop_back();
    }
}

// A volume is told by the system, by its file system and at the last chance, and saves what has changed.
TEST_F(Life, WhatComesAfterTheNotificationIsSavedAtTheLastChance) {
    constexpr LONGLONG map = 0x700000;
    FilteredStack& disk = AddDisk(u"\\Device\\Harddisk1\\DR1");
    FilteredStack& unprotected = AddStarted({.name = u"\\Device\\V2"});
    Protect();
    Attach();
    Locate({{map / S, 4096}});
    ASSERT_EQ(STATUS_SUCCESS, Write(volume, 100 * S, Data(S, 1)).status);
    host::NotifyShutdown();
    int flushes = device->Arrived(IRP_MJ_FLUSH_BUFFERS);
    EXPECT_NE(0, flushes);
    EXPECT_EQ(1u, Swapped().size());
    EXPECT_EQ(3u, TimesSaid(mark, "Kvr!KvrShutdown"));
    EXPECT_EQ(1, unprotected.Arrived(IRP_MJ_FLUSH_BUFFERS));
    EXPECT_EQ(0, disk.Arrived(IRP_MJ_FLUSH_BUFFERS)) << "its own driver is told as well";
    EXPECT_FALSE(disk.IsFiltered());
    EXPECT_TRUE(device->IsFiltered() && IsVolumeInList(volume)) << "a volume's filter stays";
    EXPECT_EQ(0, device->Arrived(IRP_MJ_SHUTDOWN)) << "and the request is not passed on";
    // The write cache holds what no request comes for any more.
    const auto cache = [&](LONGLONG offset, int seed) {
        const LARGE_INTEGER at = Large(offset);
        Bytes data = Data(S, seed);
        EXPECT_EQ(STATUS_SUCCESS, AddBufferToCache(volume, &at, data.data(), S));
    };
    const auto saved = [&] { return reinterpret_cast<const SWAP_MAP_ENTRY*>(At(map)); };
    cache(200 * S, 2);
    EXPECT_EQ(STATUS_SUCCESS, host::SendShutdown(device->pdo.object));
    EXPECT_EQ(200u, saved()[1].ulVolumeSector);
    cache(300 * S, 3);
    device->onFlush = [] { return STATUS_IO_DEVICE_ERROR; };
    host::NotifyLastChance();
    device->onFlush = nullptr;
    EXPECT_NE(0u, TimesSaid(mark, "is not saved, 0xc0000185")) << "for all that is known";
    EXPECT_EQ(300u, saved()[2].ulVolumeSector);
    EXPECT_LE(flushes + 2, device->Arrived(IRP_MJ_FLUSH_BUFFERS)) << "each time the device below is flushed";
    EXPECT_EQ(Data(S, 3), Read(300 * S, S));
    EXPECT_EQ(5u, TimesSaid(mark, "Kvr!KvrShutdown")) << "only the protected volume asked for it";
    host::NotifyLastChance();
    EXPECT_EQ(5u, TimesSaid(mark, "Kvr!KvrShutdown")) << "and once";
    EXPECT_EQ(STATUS_SUCCESS, host::SendShutdown(device->pdo.object));
    device->TakeTransfers();
    EXPECT_EQ(STATUS_SUCCESS, host::SendShutdown(device->pdo.object));
    EXPECT_TRUE(device->TakeTransfers().empty()) << "nothing has changed";
}

TEST_F(Life, PagingFilesKeepTheFilterResident) {
    const struct {
        bool inrush, comes;
        NTSTATUS below;
        bool pageableBelow, pageable;  // while the lower device has the request, and afterwards
        DEVICE_USAGE_NOTIFICATION_TYPE type = DeviceUsageTypePaging;
    } steps[] = {
        {false, true, STATUS_UNSUCCESSFUL, true, true},
        {false, true, STATUS_SUCCESS, true, false},
        {false, true, STATUS_SUCCESS, false, false},
        {false, false, STATUS_SUCCESS, false, false},
        {false, false, STATUS_UNSUCCESSFUL, true, false},
        {false, false, STATUS_SUCCESS, true, true},
        {false, false, STATUS_SUCCESS, true, true},  // one that never came
        {false, true, STATUS_SUCCESS, true, false},
        {false, false, STATUS_SUCCESS, true, true},
        {false, true, STATUS_SUCCESS, true, true, DeviceUsageTypeDumpFile},
        {true, true, STATUS_SUCCESS, false, false},
        {true, false, STATUS_SUCCESS, false, false},
    };
    FilteredStack& disk = Add({.name = u"\\Device\\Harddisk1\\DR1"});
    const auto pageable = [&] { return (disk.filter->Flags & DO_POWER_PAGABLE) != 0; };
    EXPECT_EQ(STATUS_DEVICE_NOT_READY, host::SendUsage(disk.pdo.object, DeviceUsageTypePaging, true));
    ASSERT_EQ(STATUS_SUCCESS, disk.Start());
    EXPECT_EQ(0, disk.Arrived(IRP_MJ_PNP, IRP_MN_DEVICE_USAGE_NOTIFICATION));
    int arrived = 0;
    for (const auto& step : steps) {
        SCOPED_TRACE(&step - steps);
        if (step.inrush) disk.filter->Flags = (disk.filter->Flags & ~DO_POWER_PAGABLE) | DO_POWER_INRUSH;
        disk.answer = [&](PIRP irp, PIO_STACK_LOCATION) {
            EXPECT_EQ(step.pageableBelow, pageable());
            return stub::Complete(irp, step.below);
        };
        EXPECT_EQ(step.below, host::SendUsage(disk.pdo.object, step.type, step.comes));
        EXPECT_EQ(++arrived, disk.Arrived(IRP_MJ_PNP, IRP_MN_DEVICE_USAGE_NOTIFICATION));
        EXPECT_EQ(step.pageable, pageable());
    }
}

// Requests of every kind protect a volume that is listed, and look no more at one that is protected.
TEST_F(Life, TheFirstRequestProtects) {
    UNICODE_STRING name = Counted(kName);
    EXPECT_EQ(STATUS_SUCCESS, AddProtectedVolume(&name, PV_PROTECTED | PV_EXPLICIT));
    volume->SwapMapLoaded = TRUE;
    for (const UCHAR major : {IRP_MJ_READ, IRP_MJ_WRITE, IRP_MJ_FLUSH_BUFFERS, IRP_MJ_SHUTDOWN,
                              IRP_MJ_DEVICE_CONTROL, IRP_MJ_INTERNAL_DEVICE_CONTROL}) {
        for (const bool enabled : {false, true}) {
            for (const bool before : {false, true}) {
                SCOPED_TRACE(std::to_string(major) + (enabled ? " on" : " off") + (before ? " again" : ""));
                gTesselEnabled = enabled;
                volume->IsProtected = before;
                volume->Target->Characteristics |= before ? FILE_READ_ONLY_DEVICE : 0;  // found out too late
                Bytes data(S);
                if (major == IRP_MJ_DEVICE_CONTROL || major == IRP_MJ_INTERNAL_DEVICE_CONTROL)
                    KVR_DISCARD(host::SendControl(volume->FilterDevice,
                                                  {.code = IOCTL_DISK_GET_LENGTH_INFO, .major = major}),
                                "its effect is looked at");
                else
                    KVR_DISCARD(Send(volume, major, 0, data), "likewise");
                EXPECT_EQ(before || enabled, volume->IsProtected != FALSE);
                volume->Target->Characteristics &= ~FILE_READ_ONLY_DEVICE;
            }
        }
    }
}

// What guards a volume besides, and which codes are refused there, is a story's.
TEST_F(Life, ControlCodesOfAVolumeWithAMap) {
    MAP_LOCATION_ENTRY run{};
    volume->MapLocation = &run;
    for (const bool listed : {false, true}) {
        for (const bool enabled : {false, true}) {
            volume->IsListed = listed;
            gTesselEnabled = enabled;
            EXPECT_EQ(listed && enabled ? STATUS_MEDIA_WRITE_PROTECTED : STATUS_SUCCESS,
                      device->Control(FSCTL_MOVE_FILE));
        }
    }
    volume->MapLocation = nullptr;
    volume->IsProtected = TRUE;
    SCSI_PASS_THROUGH command{};
    command.Cdb[0] = 0x28;
    EXPECT_EQ(STATUS_SUCCESS, device->Control(IOCTL_SCSI_PASS_THROUGH, &command, sizeof(command)));
    EXPECT_EQ(1u, TimesSaid(mark, "IOCTL_SCSI_PASS_THROUGH, 40"));
    volume->MediaType = RemovableMedia;
    EXPECT_EQ(STATUS_MEDIA_WRITE_PROTECTED, device->Control(IOCTL_DISK_IS_WRITABLE));
    EXPECT_EQ(1u, TimesSaid(mark, "IS_WRITABLE IoControlCode = 0x00070024 BLOCKING!"));
    volume->MediaType = FixedMedia;
    // Each of them is traced until the start has ended, and for whoever asks.
    for (const bool suppressed : {true, false}) {
        for (const bool isDisk : {true, false}) {
            for (const bool isProtected : {true, false}) {
                volume->SuppressControlTrace = suppressed;
                volume->IsDisk = isDisk;
                volume->IsProtected = isProtected;
                mark = host::DebugMark();
                EXPECT_EQ(STATUS_SUCCESS, device->Control(IOCTL_DISK_GET_LENGTH_INFO));
                EXPECT_EQ(!suppressed && isProtected, Said("Kvr!KvrDeviceControl: Device=0x"));
                EXPECT_EQ(!suppressed && isDisk, Said("Kvr!KvrDeviceControl: DiskDevice=0x"));
            }
        }
    }
    volume->IsDisk = FALSE;
}

}  // namespace
