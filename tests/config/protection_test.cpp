#include "config/parser.h"
#include "config/protected_volumes.h"
#include "tests/support/driver_fixture.h"

namespace {

using support::DeviceOptions;
using support::MemoryDevice;

class Protection : public support::DriverTest {
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

constexpr char16_t kName[] = u"\\Device\\HarddiskVolume1";

TEST_F(Protection, OfAFixedVolumeComesFromItsEntryOnly) {
    PVOLUME_EXTENSION volume = RecordOf(AddDevice());
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
    PVOLUME_EXTENSION volume = RecordOf(AddDevice({.characteristics = FILE_REMOVABLE_MEDIA}));
    gRVProtect = gRVInvisible = TRUE;
    EXPECT_TRUE(Updated(volume));
    EXPECT_TRUE(volume->IsInvisible);
    Add(kName, 0);
    EXPECT_FALSE(Updated(volume));
    EXPECT_FALSE(volume->IsInvisible);
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
    MemoryDevice& disk1 = AddDevice({.name = u"\\Device\\Harddisk1\\DR1", .isDisk = true});
    MemoryDevice& disk11 = AddDevice({.name = u"\\Device\\Harddisk11\\DR1", .isDisk = true});
    AddDevice({.disks = {7, 1}});
    Add(kName, 0x101);
    EXPECT_FALSE(HasProtectedVolume(RecordOf(disk1)->FilterDevice)) << "the master switch is off";
    gTesselEnabled = TRUE;
    EXPECT_TRUE(HasProtectedVolume(RecordOf(disk1)->FilterDevice));
    EXPECT_FALSE(HasProtectedVolume(RecordOf(disk11)->FilterDevice));
}

TEST_F(Protection, VolumeWithUnknownExtentsCountsForEveryDiskNamedAlike) {
    MemoryDevice& disk = AddDevice({.name = u"\\Device\\Harddisk3\\DR3", .isDisk = true});
    MemoryDevice& volume = AddDevice({.disks = {}});
    gTesselEnabled = TRUE;
    EXPECT_FALSE(HasProtectedVolume(RecordOf(disk)->FilterDevice));
    Add(kName, 0x101);
    EXPECT_TRUE(HasProtectedVolume(RecordOf(disk)->FilterDevice));
    RecordOf(volume)->VolumeDiskExtents.NumberOfDiskExtents = 1;  // a disk that this is not
    EXPECT_FALSE(HasProtectedVolume(RecordOf(disk)->FilterDevice));
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
