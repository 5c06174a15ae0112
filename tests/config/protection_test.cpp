#include "config/parser.h"
#include "config/protected_volumes.h"
#include "tests/support/memory_stack.h"

namespace {

class Protection : public MemoryStackTest {
protected:
    static void Add(const char16_t* id, ULONG flags) {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, id);
        EXPECT_EQ(STATUS_SUCCESS, AddProtectedVolume(&name, flags));
    }
    static bool Updated(PVOLUME_EXTENSION volume) {
        UpdateVolumeProtection(volume);
        return volume->IsProtected;
    }
};

TEST_F(Protection, OfAFixedVolumeComesFromItsEntryOnly) {
    gRVProtect = TRUE;
    EXPECT_FALSE(Updated(volume)) << "no entry";
    Add(u"\\DEVICE\\harddiskvolume1,text", 0x121);
    Add(kName, 0);
    volume->MediaType = 0;
    EXPECT_FALSE(Updated(volume)) << "not started";
    volume->MediaType = FixedMedia;
    for (const ULONG state : {3u, 4u, 5u}) {
        volume->SwapState = state;
        EXPECT_FALSE(Updated(volume)) << "state " << state;
    }
    volume->SwapState = 0;
    volume->Target->Characteristics |= FILE_READ_ONLY_DEVICE;
    EXPECT_FALSE(Updated(volume)) << "read-only";
    volume->SwapState = 5;
    volume->IsProtected = TRUE;
    EXPECT_FALSE(Updated(volume)) << "read-only, whatever the storage's state";
    volume->Target->Characteristics &= ~FILE_READ_ONLY_DEVICE;
    volume->IsProtected = TRUE;
    EXPECT_TRUE(Updated(volume)) << "storage that is not held does not end what has begun";
    volume->SwapState = 0;
    volume->IsProtected = FALSE;
    volume->ProtectionDeferred = TRUE;
    EXPECT_FALSE(Updated(volume)) << "storage made or removed in this boot";
    volume->ProtectionDeferred = FALSE;
    EXPECT_TRUE(Updated(volume));
    EXPECT_EQ(PV_ACTION_MERGE, volume->BootAction.load());
    EXPECT_TRUE(volume->IsExplicit);
    volume->SwapState = kSwapFilesNotHeld;
    EXPECT_TRUE(Updated(volume)) << "a live map stays in force";
    volume->SwapState = kSwapMapBad;
    EXPECT_FALSE(Updated(volume));
}

TEST_F(Protection, OfARemovableVolumeFollowsTheDefaultsWithoutAnEntry) {
    PVOLUME_EXTENSION stick =
        AddMemory({.name = u"\\Device\\Stick", .characteristics = FILE_REMOVABLE_MEDIA}).stack.volume;
    gRVProtect = gRVInvisible = TRUE;
    EXPECT_TRUE(Updated(stick));
    EXPECT_TRUE(stick->IsInvisible);
    Add(u"\\Device\\Stick", 0);
    EXPECT_FALSE(Updated(stick));
    EXPECT_FALSE(stick->IsInvisible);
}

TEST_F(Protection, DiskIsKnownByItsNumberAndSeparator) {
    PDEVICE_OBJECT disk1 = AddMemoryDisk(u"\\Device\\Harddisk1\\DR1").stack.filter;
    PDEVICE_OBJECT disk11 = AddMemoryDisk(u"\\Device\\Harddisk11\\DR1").stack.filter;
    AddMemory({.name = u"\\Device\\V"}, {7, 1});
    Add(u"\\Device\\V", 0x101);
    EXPECT_FALSE(HasProtectedVolume(disk1)) << "the master switch is off";
    gTesselEnabled = TRUE;
    EXPECT_TRUE(HasProtectedVolume(disk1));
    EXPECT_FALSE(HasProtectedVolume(disk11));
}

}  // namespace
