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
    volume->Target->Characteristics &= ~FILE_READ_ONLY_DEVICE;
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

TEST_F(Protection, EntryThatCannotBeMadeLeavesTheListAlone) {
    UNICODE_STRING id;
    RtlInitUnicodeString(&id, kName);
    host::FailFromCall(host::FaultBit(host::Fault::Allocate), 1);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, AddProtectedVolume(&id, 0x101));
    host::DisarmFaults();
    EXPECT_EQ(nullptr, gProtectedVolumeList.load());
    Add(u"first", 0);
    host::FailFromCall(host::FaultBit(host::Fault::Allocate), 1);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, AddProtectedVolume(&id, 0x101));
    host::DisarmFaults();
    Add(kName, 0x101);
    EXPECT_EQ(0x101u, gProtectedVolumeList.load()->Next.load()->Flags);
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

TEST_F(Protection, VolumeWithUnknownExtentsCountsForEveryDiskNamedAlike) {
    PDEVICE_OBJECT disk = AddMemoryDisk(u"\\Device\\Harddisk3\\DR3").stack.filter;
    PVOLUME_EXTENSION unknown = AddMemory({.name = u"\\Device\\V"}, {}).stack.volume;
    gTesselEnabled = TRUE;
    EXPECT_FALSE(HasProtectedVolume(disk));
    Add(u"\\Device\\V", 0x101);
    EXPECT_TRUE(HasProtectedVolume(disk));
    unknown->VolumeDiskExtents.NumberOfDiskExtents = 1;  // a disk that this is not
    EXPECT_FALSE(HasProtectedVolume(disk));
}

TEST_F(Protection, NamesAreComparedByLengthAndLetters) {
    UNICODE_STRING a, b, c;
    RtlInitUnicodeString(&a, u"Volume");
    RtlInitUnicodeString(&b, u"vOLUME");
    RtlInitUnicodeString(&c, u"Volume1");
    EXPECT_EQ(0, CompareNames(&a, &b, TRUE));
    EXPECT_EQ(u'V' - u'v', CompareNames(&a, &b, FALSE));
    EXPECT_EQ(1, CompareNames(&a, &c, TRUE));
    EXPECT_EQ(1, CompareNames(&a, nullptr, TRUE));
    EXPECT_EQ(0, CompareNames(nullptr, nullptr, TRUE));
}

}  // namespace
