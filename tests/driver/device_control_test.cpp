// Which device-control requests a filter refuses, and where.
#include "platform/host/io/device.h"
#include "tests/support/loaded_driver.h"

namespace {

constexpr ULONG kPlainCode = IOCTL_DISK_GET_LENGTH_INFO;
constexpr ULONG kPrepareForShrink = 0x56C05C;

class Filtering : public LoadedDriver {
protected:
    void SetUp() override {
        LoadedDriver::SetUp();
        gTesselEnabled = TRUE;
    }
    // The request is answered either by the filter, with an error, or by the device below.
    static void Expect(FilteredStack& stack, ULONG code, NTSTATUS expected) {
        const int before = stack.Arrived(IRP_MJ_DEVICE_CONTROL, code);
        EXPECT_EQ(expected, stack.Control(code)) << std::hex << code;
        EXPECT_EQ(before + (expected == STATUS_SUCCESS), stack.Arrived(IRP_MJ_DEVICE_CONTROL, code))
            << std::hex << code;
    }
    static NTSTATUS PassThrough(FilteredStack& stack, ULONG code, UCHAR operation, ULONG length = 56) {
        SCSI_PASS_THROUGH command{};
        command.Cdb[0] = operation;
        return stack.Control(code, &command, length);
    }
};

TEST_F(Filtering, TheTable) {
    constexpr NTSTATUS no = STATUS_MEDIA_WRITE_PROTECTED, yes = STATUS_SUCCESS;
    struct {
        ULONG code;
        NTSTATUS off, plain, guarded;  // protection off; a volume nobody needs; one that is protected
    } const table[] = {
        {IOCTL_DISK_SET_DRIVE_LAYOUT, yes, no, no},
        {IOCTL_DISK_SET_DRIVE_LAYOUT_EX, yes, no, no},
        {IOCTL_DISK_GET_DRIVE_LAYOUT, yes, yes, yes},
        {IOCTL_DISK_GET_DRIVE_LAYOUT_EX, yes, yes, yes},
        {IOCTL_DISK_IS_WRITABLE, yes, yes, yes},
        {IOCTL_MOUNTDEV_LINK_CREATED, yes, yes, yes},
        {IOCTL_MOUNTDEV_LINK_DELETED, yes, yes, no},
        {IOCTL_DISK_VERIFY, yes, yes, no},
        {IOCTL_DISK_FORMAT_TRACKS, yes, yes, no},
        {IOCTL_DISK_FORMAT_TRACKS_EX, yes, yes, no},
        {IOCTL_DISK_SET_PARTITION_INFO, yes, yes, yes},
        {IOCTL_DISK_SET_PARTITION_INFO_EX, yes, yes, no},
        {IOCTL_DISK_GROW_PARTITION, yes, yes, no},
        {IOCTL_DISK_DELETE_DRIVE_LAYOUT, yes, yes, no},
        {FSCTL_MOVE_FILE, yes, yes, no},
        {FSCTL_EXTEND_VOLUME, yes, yes, no},
        {FSCTL_SHRINK_VOLUME, yes, yes, no},
        {kPrepareForShrink, yes, yes, no},
        {IOCTL_IDE_PASS_THROUGH, yes, yes, yes},
        {kPlainCode, yes, yes, yes},
    };
    FilteredStack& stack = AddStarted();
    for (const auto& row : table) {
        gTesselEnabled = FALSE;
        Expect(stack, row.code, row.off);
        gTesselEnabled = TRUE;
        Expect(stack, row.code, row.plain);
        stack.volume->IsProtected = TRUE;
        Expect(stack, row.code, row.guarded);
        stack.volume->IsProtected = FALSE;
    }
}

TEST_F(Filtering, VolumesThatTheDriverWritesDirectlyAreGuardedToo) {
    FilteredStack& stack = AddStarted();
    stack.volume->PreloadConfigLocation[0] = 512;
    Expect(stack, FSCTL_MOVE_FILE, STATUS_MEDIA_WRITE_PROTECTED);
    stack.volume->PreloadConfigLocation[0] = 0;
    Expect(stack, FSCTL_MOVE_FILE, STATUS_SUCCESS);
    MAP_LOCATION_ENTRY* somewhere = reinterpret_cast<MAP_LOCATION_ENTRY*>(&stack);
    stack.volume->MapLocation = somewhere;
    Expect(stack, FSCTL_MOVE_FILE, STATUS_MEDIA_WRITE_PROTECTED);
    stack.volume->MapLocation = nullptr;
}

TEST_F(Filtering, AProtectedRemovableVolumeIsNotWritable) {
    gRVProtect = TRUE;
    FilteredStack& stack = AddStarted({.characteristics = FILE_REMOVABLE_MEDIA});
    Expect(stack, IOCTL_DISK_IS_WRITABLE, STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_EQ(1u, TimesSaid(mark, "IS_WRITABLE IoControlCode = 0x00070024 BLOCKING!"));
}

TEST_F(Filtering, ScsiCommandsThatWriteAreRefused) {
    FilteredStack& stack = AddStarted();
    stack.volume->IsProtected = TRUE;
    for (const ULONG code : {IOCTL_SCSI_PASS_THROUGH, IOCTL_SCSI_PASS_THROUGH_DIRECT}) {
        for (const UCHAR operation :
             {0x04, 0x0A, 0x10, 0x19, 0x2A, 0x2E, 0x3B, 0x5B, 0x8A, 0x8E, 0xA1, 0xAA, 0xAE})
            EXPECT_EQ(STATUS_ACCESS_DENIED, PassThrough(stack, code, operation)) << int(operation);
        EXPECT_EQ(STATUS_SUCCESS, PassThrough(stack, code, 0x28));
        EXPECT_EQ(STATUS_INVALID_PARAMETER, PassThrough(stack, code, 0x28, 55));
        EXPECT_EQ(STATUS_INVALID_PARAMETER, stack.Control(code, nullptr, 0));
    }
    EXPECT_EQ(1u, TimesSaid(mark, "IOCTL_SCSI_PASS_THROUGH, 40"));
    EXPECT_EQ(1u, TimesSaid(mark, "IOCTL_SCSI_PASS_THROUGH_DIRECT BLOCKED, 42"));
    stack.volume->IsProtected = FALSE;
    EXPECT_EQ(STATUS_SUCCESS, PassThrough(stack, IOCTL_SCSI_PASS_THROUGH, 0x2A)) << "nothing to guard";
}

TEST_F(Filtering, AVolumeBecomesProtectedAtItsFirstRequest) {
    ListVolume(u"\\Device\\HarddiskVolume1", PV_PROTECTED | PV_EXPLICIT);
    FilteredStack& stack = AddStarted();
    stack.volume->IsProtected = FALSE;
    Expect(stack, FSCTL_MOVE_FILE, STATUS_MEDIA_WRITE_PROTECTED);
    EXPECT_TRUE(stack.volume->IsProtected);
}

}  // namespace
