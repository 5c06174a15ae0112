// A device's life under the filter: attached, started, refused or let go; and what waits for whom.
#include <atomic>
#include "control/provision_control.h"
#include "driver/remove.h"
#include "driver/shutdown.h"
#include "platform/host/sync/thread.h"
#include "swap/swap.h"
#include "tests/support/loaded_driver.h"
#include "driver/record/names.h"
#include "driver/record/threads.h"
#include "swap/provision.h"

namespace {

class Life : public LoadedDriver {};

TEST_F(Life, StartTellsWhatTheDeviceIs) {
    FilteredStack& stack = Add({.sectorSize = 4096});
    EXPECT_EQ(0u, stack.volume->MediaType);
    EXPECT_EQ(kVolumeSignature, stack.volume->Signature);
    stack.extents.push_back({3, {.QuadPart = 0x200}, {.QuadPart = 0x400}});
    stack.claimedExtents = 2;
    ASSERT_EQ(STATUS_SUCCESS, stack.Start());
    EXPECT_EQ(ULONG{FixedMedia}, stack.volume->MediaType);
    EXPECT_EQ(4096u, stack.volume->BytesPerSector);
    EXPECT_TRUE(stack.volume->IsVolume && !stack.volume->IsDisk);
    EXPECT_EQ(2u, stack.volume->VolumeDiskExtents.NumberOfDiskExtents);
    EXPECT_TRUE(host::DebugSaid(mark, "Kvr!\tExtent[1]: 3 [200-600, length 400]"));
    UNICODE_STRING name = Counted(u"\\Device\\HarddiskVolume1");
    EXPECT_EQ(0, CompareNames(&name, &stack.volume->VolumeName, FALSE));

    FilteredStack& disk = (AddDisk(), *stacks.back());
    EXPECT_TRUE(disk.volume->IsDisk && !disk.volume->IsVolume);
    EXPECT_EQ(0u, disk.volume->VolumeDiskExtents.NumberOfDiskExtents);
    EXPECT_EQ(&stack.volume->ListEntry, gVolumeList.Flink);
    EXPECT_EQ(&disk.volume->ListEntry, gVolumeList.Blink);

    const auto blocks = host::PoolUsage(kPoolTag).blocks;
    ASSERT_EQ(STATUS_SUCCESS, stack.Start());
    EXPECT_EQ(blocks, host::PoolUsage(kPoolTag).blocks) << "a second start takes nothing more";
    EXPECT_EQ(2, stack.Arrived(IRP_MJ_PNP, IRP_MN_START_DEVICE));
}

TEST_F(Life, ExtentsAreNeverMoreThanWereReturned) {
    FilteredStack& stack = Add();
    stack.claimedExtents = 0xFFFFFFFF;
    ASSERT_EQ(STATUS_SUCCESS, stack.Start());
    EXPECT_EQ(1u, stack.volume->VolumeDiskExtents.NumberOfDiskExtents);
    stack.extents.resize(kMaxVolumeExtents, stack.extents[0]);
    ASSERT_EQ(STATUS_SUCCESS, stack.Start());
    EXPECT_EQ(kMaxVolumeExtents, stack.volume->VolumeDiskExtents.NumberOfDiskExtents);
}

TEST_F(Life, RemovableVolumesAreShownReadOnlyOrHidden) {
    gTesselEnabled = TRUE;
    const StackOptions removable{.characteristics = FILE_REMOVABLE_MEDIA, .sectorSize = 4096};
    struct {
        ULONG flags;  // of the volume's entry; ~0 for none
        BOOLEAN protectDefault, hideDefault;
        NTSTATUS status;
        bool readOnly, isProtected, invisible;
    } const cases[] = {
        {~0u, FALSE, FALSE, STATUS_SUCCESS, false, false, false},
        {~0u, TRUE, FALSE, STATUS_SUCCESS, false, true, false},
        {~0u, TRUE, TRUE, STATUS_ACCESS_DENIED, false, true, true},
        {0x000, TRUE, TRUE, STATUS_SUCCESS, false, false, false},
        {0x101, FALSE, FALSE, STATUS_SUCCESS, true, true, false},
        {0x003, FALSE, FALSE, STATUS_ACCESS_DENIED, true, true, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.flags);
        const std::u16string name = u"\\Device\\Stick" + std::u16string(1, char16_t(u'A' + (&c - cases)));
        if (c.flags != ~0u) ListVolume(name.c_str(), c.flags);
        gRVProtect = c.protectDefault;
        gRVInvisible = c.hideDefault;
        StackOptions options = removable;
        options.name = name.c_str();
        FilteredStack& stack = Add(options);
        EXPECT_EQ(c.status, stack.Start());
        EXPECT_EQ(1, stack.Arrived(IRP_MJ_PNP, IRP_MN_START_DEVICE)) << "the devices below start in any case";
        EXPECT_EQ(c.readOnly, (stack.filter->Characteristics & FILE_READ_ONLY_DEVICE) != 0);
        EXPECT_EQ(c.isProtected, stack.volume->IsProtected != FALSE);
        EXPECT_EQ(c.invisible, stack.volume->IsInvisible != FALSE);
        EXPECT_EQ(512u, stack.volume->BytesPerSector);
    }
}

TEST_F(Life, ANeededVolumeIsNotGivenUp) {
    FilteredStack& stack = AddStarted();
    const auto refused = [&] {
        const int seen = stack.Arrived(IRP_MJ_PNP, IRP_MN_QUERY_REMOVE_DEVICE);
        const bool query =
            host::SendPnp(stack.pdo.object, IRP_MN_QUERY_REMOVE_DEVICE) == STATUS_INSUFFICIENT_RESOURCES;
        EXPECT_EQ(query ? seen : seen + 1, stack.Arrived(IRP_MJ_PNP, IRP_MN_QUERY_REMOVE_DEVICE));
        if (query) {
            EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, host::SendPnp(stack.pdo.object, IRP_MN_REMOVE_DEVICE));
            EXPECT_TRUE(stack.IsFiltered() && IsVolumeInList(stack.volume));
        }
        return query;
    };
    EXPECT_FALSE(refused());
    stack.volume->IsProtected = TRUE;
    EXPECT_TRUE(refused());
    stack.volume->MediaType = RemovableMedia;
    EXPECT_FALSE(refused());
    stack.volume->MediaType = FixedMedia;
    stack.volume->IsProtected = FALSE;
    stack.volume->PreloadConfigLocation[0] = 512;
    EXPECT_TRUE(refused());
    stack.volume->PreloadConfigLocation[0] = 0;
    stack.volume->MapLocation = NewRecord<MAP_LOCATION_ENTRY>().Release();
    EXPECT_TRUE(refused());
    FreePool(stack.volume->MapLocation.exchange(nullptr));
    EXPECT_FALSE(refused());
}

TEST_F(Life, RemovalWaitsForRequestsAndThreads) {
    FilteredStack& stack = AddStarted();
    std::atomic<bool> inside = false, open = false, removed = false;
    stack.answer = [&](PIRP irp, PIO_STACK_LOCATION location) {
        if (location->MajorFunction == IRP_MJ_DEVICE_CONTROL) {
            inside = true;
            while (!open) std::this_thread::yield();
        }
        return stub::Complete(irp, STATUS_SUCCESS);
    };
    host::ThreadGate gate;
    ASSERT_EQ(STATUS_SUCCESS, StartArmThread(stack.volume));
    std::thread request([&] { EXPECT_EQ(STATUS_SUCCESS, stack.Control(IOCTL_DISK_GET_LENGTH_INFO)); });
    while (!inside) std::this_thread::yield();
    std::thread remover([&] {
        EXPECT_EQ(STATUS_SUCCESS, host::SendPnp(stack.pdo.object, IRP_MN_REMOVE_DEVICE));
        removed = true;
    });
    while (stack.Flush() != STATUS_DELETE_PENDING) std::this_thread::yield();  // until the removal waits
    EXPECT_EQ(STATUS_DELETE_PENDING, StartArmThread(stack.volume)) << "nothing new is started on the record";
    open = true;
    request.join();
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    EXPECT_FALSE(removed) << "the thread still uses the record";
    EXPECT_TRUE(IsVolumeInList(stack.volume));
    gate.ReleaseAll();
    remover.join();
    EXPECT_FALSE(stack.IsFiltered());
}

TEST_F(Life, AtShutdownDisksLeaveTheirStacksAndVolumesStay) {
    AddDisk();
    FilteredStack& volume = AddStarted();
    FilteredStack& disk = *stacks.front();
    EXPECT_EQ(STATUS_SUCCESS, host::Send(volume.filter, {.major = IRP_MJ_SHUTDOWN}).status);
    host::NotifyShutdown();
    EXPECT_EQ(2u, TimesSaid(mark, "Kvr!KvrShutdown")) << "who was told is not told again";
    EXPECT_FALSE(disk.IsFiltered());
    EXPECT_TRUE(volume.IsFiltered() && IsVolumeInList(volume.volume));
    EXPECT_EQ(&volume.volume->ListEntry, gVolumeList.Flink);
    EXPECT_EQ(&volume.volume->ListEntry, gVolumeList.Blink);
    EXPECT_EQ(0, volume.Arrived(IRP_MJ_SHUTDOWN)) << "shutdown is not passed on";
}

}  // namespace
