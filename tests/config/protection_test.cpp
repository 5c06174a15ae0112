#include "config/parser.h"
#include "config/protected_volumes.h"
#include "driver/record/hardening.h"
#include "tests/support/loaded_driver.h"

namespace {

class Protection : public LoadedDriver {
protected:
    static bool Updated(PVOLUME_EXTENSION volume) {
        UpdateVolumeProtection(volume);
        return volume->IsProtected;
    }
    PROTECTED_VOLUME* m_list = nullptr;
};

TEST_F(Protection, OfAFixedVolumeComesFromItsEntryOnly) {
    gRVProtect = TRUE;
    EXPECT_FALSE(Updated(volume)) << "no entry";
    List(u"\\DEVICE\\harddiskvolume1,text", 0x121);
    List(kName, 0);
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
    EXPECT_EQ(0u, volume->BootAction.load()) << "nor is anything to be done at it";
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
        AddStarted({.name = u"\\Device\\Stick", .characteristics = FILE_REMOVABLE_MEDIA}).volume;
    gRVProtect = gRVInvisible = TRUE;
    EXPECT_TRUE(Updated(stick));
    EXPECT_TRUE(stick->IsInvisible);
    gRVProtect = FALSE;
    EXPECT_FALSE(Updated(stick)) << "the defaults have changed";
    List(u"\\Device\\Stick", 0);
    EXPECT_FALSE(Updated(stick));
    EXPECT_FALSE(stick->IsInvisible || stick->IsExplicit);
}

// By its extents, where they are known: by the number, with the separator behind it. Else by the first
// component of its name.
TEST_F(Protection, OfADiskComesFromTheVolumesOnIt) {
    FilteredStack& disk1 = AddDisk(u"\\Device\\HARDDISK1\\DR1");  // case does not count
    FilteredStack& disk11 = AddDisk(u"\\Device\\Harddisk11\\DR1");
    FilteredStack& other = AddDisk(u"\\KernelObjects\\Disk");
    FilteredStack& filtered = AddStarted(
        {.name = u"\\Device\\0000002e", .className = u"DiskDrive", .classGuid = kDiskClass, .diskNumber = 1});
    FilteredStack& nameless = AddStarted({.name = u"\\Harddisk1"});
    PDEVICE_OBJECT unnamed = AddDisk(nullptr).filter;
    PVOLUME_EXTENSION located = AddStarted({.name = u"\\Device\\V"}, {7, 1}).volume;
    PVOLUME_EXTENSION unknown = AddStarted({.name = u"\\Device\\W"}, {}).volume;
    const struct {
        const char* what;
        bool enabled, located, unknown, unknownIsDisk, knows;
        bool on1, on11, onOther;
    } cases[] = {
        {"switched off", false, true, true, false, false, false, false, false},
        {"nothing protected", true, false, false, false, false, false, false, false},
        {"known extents", true, true, false, false, false, true, false, false},
        {"unknown extents", true, false, true, false, false, true, true, false},
        {"a disk", true, false, true, true, false, false, false, false},
        {"extents that turn out", true, false, true, false, true, false, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        gTesselEnabled = c.enabled;
        located->IsProtected = c.located;
        unknown->IsProtected = c.unknown;
        unknown->IsDisk = c.unknownIsDisk;
        unknown->VolumeDiskExtents.NumberOfDiskExtents = c.knows;
        unknown->VolumeDiskExtents.Extents[0].DiskNumber = 5;
        EXPECT_EQ(c.on1, HasProtectedVolume(disk1.filter) != FALSE);
        EXPECT_EQ(c.on1, HasProtectedVolume(filtered.filter) != FALSE) << "a lower filter has a name";
        EXPECT_EQ(c.on11, HasProtectedVolume(disk11.filter) != FALSE);
        EXPECT_EQ(c.onOther, HasProtectedVolume(other.filter) != FALSE);
        EXPECT_FALSE(HasProtectedVolume(nameless.filter)) << "a name that ends early";
        const SIZE_T asked = TimesSaid(mark, "Kvr!HasProtectedVolume: VolumeName");
        EXPECT_FALSE(HasProtectedVolume(unnamed));
        EXPECT_EQ(asked, TimesSaid(mark, "Kvr!HasProtectedVolume: VolumeName"));
    }
    EXPECT_EQ(1u, TimesSaid(mark, "Kvr!HasProtectedVolume: disk protected!"));
    unknown->VolumeDiskExtents.NumberOfDiskExtents = 0;
    unknown->IsProtected = unknown->IsDisk = FALSE;
    List(u"\\Device\\W", PV_PROTECTED);
    EXPECT_TRUE(HasProtectedVolume(disk1.filter)) << "protected by being looked at";
    UNICODE_STRING name = std::exchange(unknown->VolumeName, Counted(u"\\Dev"));
    EXPECT_FALSE(HasProtectedVolume(disk11.filter)) << "no second backslash";
    unknown->VolumeName = name;
    unknown->VolumeDiskExtents.NumberOfDiskExtents = 1;
    List(u"\\Device\\V", PV_PROTECTED);
    located->IsProtected = FALSE;
    located->SwapState = kSwapMapBad;
    for (const bool hardened : {false, true}) {
        gHardening = hardened;
        EXPECT_EQ(hardened, HasProtectedVolume(disk1.filter) != FALSE) << "a volume that takes no writes";
    }
}

// What a write to the whole disk may not touch while a volume on it is protected.
TEST_F(Protection, OfADisksPartitionTables) {
    constexpr LONGLONG end = 0x800000;
    const struct {
        const char* what;
        USHORT sector;
        LONGLONG first, last;  // of the volume on the disk
        std::vector<std::pair<LONGLONG, ULONG>> refused, passed;
    } disks[] = {
        {"two tables",
         512,
         0x100000,
         0x700000,
         {{512, 512}, {33 * 512, 512}, {33 * 512, 1024}, {end - 33 * 512, 512}, {end - 34 * 512, 1024}},
         {{34 * 512, 512}, {end - 34 * 512, 512}, {512, 0}}},
        {"large sectors",
         4096,
         0x100000,
         0x700000,
         {{4096, 4096}, {5 * 4096, 4096}, {end - 5 * 4096, 4096}, {end - 4096, 4096}},
         {{6 * 4096, 4096}, {end - 6 * 4096, 4096}}},
        {"a volume that ends with the disk",
         512,
         16 * 512,
         end,
         {{512, 512}, {15 * 512, 1024}},
         {{16 * 512, 512}, {33 * 512, 512}, {end - 512, 512}}},
    };
    for (const BOOLEAN hardened : {FALSE, TRUE}) {
        gHardening = hardened;
        for (const auto& d : disks) {
            SCOPED_TRACE(d.what);
            const ULONG number = 10 * (1 + hardened) + static_cast<ULONG>(&d - disks);
            const auto name = [&](const char16_t* head, char16_t kind) {
                return head + std::u16string{char16_t(u'0' + number / 10), char16_t(u'0' + number % 10), kind};
            };
            FilteredStack& disk = AddStarted({.name = name(u"\\Device\\Harddisk", u'\\').append(u"DR").c_str(),
                                              .className = u"DiskDrive",
                                              .classGuid = kDiskClass,
                                              .sectorSize = d.sector,
                                              .bytes = end});
            FilteredStack& on = AddStarted({.name = name(u"\\Device\\V", u'x').c_str()});
            on.extents = {{number, Large(d.first), Large(d.last - d.first)}};
            ASSERT_EQ(STATUS_SUCCESS, on.Start());
            for (const bool isProtected : {true, false}) {
                gTesselEnabled = TRUE;
                on.volume->IsProtected = isProtected;
                const auto answer = [&](LONGLONG at, ULONG length) {
                    return Write(disk.volume, at, Bytes(length)).status;
                };
                EXPECT_EQ(isProtected ? STATUS_MEDIA_WRITE_PROTECTED : STATUS_SUCCESS, answer(0, d.sector));
                for (const auto& [at, length] : d.refused)
                    EXPECT_EQ(isProtected && hardened ? STATUS_MEDIA_WRITE_PROTECTED : STATUS_SUCCESS,
                              answer(at, length))
                        << at;
                for (const auto& [at, length] : d.passed) EXPECT_EQ(STATUS_SUCCESS, answer(at, length)) << at;
                Bytes back(d.sector);
                EXPECT_EQ(STATUS_SUCCESS, Send(disk.volume, IRP_MJ_READ, 0, back).status);
            }
        }
    }
}

// The saved map cannot name every sector: such a volume is protected only where nothing is to be kept.
TEST_F(Protection, OfAVolumeTooLargeToKeep) {
    constexpr LONGLONG limit = 0xFFFFFFFFLL;
    const struct {
        ULONG flags;
        LONGLONG sectors, extent;  // told, and summed up from the extents
        USHORT sector;
        bool isProtected, drops = false;  // the boot mode's word, not this boot's
    } cases[] = {{PV_PROTECTED, limit - 1, limit - 1, 512, true},
                 {PV_PROTECTED, limit, limit, 512, false},
                 {PV_PROTECTED, limit - 1, 2 * limit, 512, true},
                 {PV_PROTECTED, limit, limit, 4096, false},
                 {PV_PROTECTED | PV_ACTION_MERGE, limit, limit, 512, false},
                 {PV_PROTECTED | PV_ACTION_DISCARD, limit, limit, 512, false},
                 {PV_PROTECTED | PV_ACTION_DISCARD, limit, limit, 512, true, true},
                 {0, limit, limit, 512, false},
                 {PV_PROTECTED, limit, limit, 0, true}};  // nobody told
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        const std::u16string name = u"\\Device\\Large" + std::u16string(1, char16_t(u'A' + (&c - cases)));
        UNICODE_STRING id = Counted(name.c_str());
        EXPECT_EQ(STATUS_SUCCESS, AddProtectedVolume(&id, c.flags, c.drops));
        FilteredStack& large =
            AddStarted({.name = name.c_str(), .sectorSize = c.sector, .bytes = c.sectors * c.sector});
        large.extents = {{3, {}, Large(c.extent * c.sector)}};
        large.claimedExtents = 1;
        ASSERT_EQ(STATUS_SUCCESS, large.Start());
        const bool refused = (c.flags & PV_PROTECTED) && !c.isProtected;
        large.volume->IsProtected = TRUE;  // until now
        EXPECT_EQ(c.isProtected, Updated(large.volume));
        EXPECT_EQ(refused ? kSwapVolumeTooLarge : kSwapUsable, large.volume->SwapState.load());
    }
    EXPECT_EQ(4u, TimesSaid(mark, "is too large to keep its changes"));
    List(kName, PV_PROTECTED);
    volume->DeviceBytes = limit * S;
    volume->MediaType = RemovableMedia;
    EXPECT_TRUE(Updated(volume)) << "of a removable volume nothing is kept";
    volume->MediaType = FixedMedia;
}

TEST_F(Protection, NamesAreComparedWhole) {
    const struct {
        const char16_t *a, *b;
        LONG cased, folded;
    } cases[] = {{nullptr, nullptr, 0, 0}, {u"x", nullptr, 1, 1}, {nullptr, u"x", 1, 1},
                 {u"", u"", 0, 0},         {u"ab", u"abc", 1, 1}, {u"Ab", u"aB", -32, 0},
                 {u"abd", u"abc", 1, 1},   {u"b", u"D", 30, -2}};
    for (const auto& c : cases) {
        UNICODE_STRING a = Counted(c.a), b = Counted(c.b);
        EXPECT_EQ(c.cased, CompareNames(c.a ? &a : nullptr, c.b ? &b : nullptr, FALSE)) << &c - cases;
        EXPECT_EQ(c.folded, CompareNames(c.a ? &a : nullptr, c.b ? &b : nullptr, TRUE)) << &c - cases;
    }
}

TEST_F(Protection, TheListKeepsTheFirstEntryOfAName) {
    List(u"\\Device\\A;comment", 1);
    List(u"\\DEVICE\\a", 2);
    List((u"\\Device\\" + std::u16string(80, u'x')).c_str(), 4);  // cut to 64 characters
    EXPECT_EQ(1u, gProtectedVolumeList.load()->Flags);
    EXPECT_EQ(2 * 64, gProtectedVolumeList.load()->Next.load()->Name.Length);
    EXPECT_FALSE(IsProtectedVolumeListed(volume));
    EXPECT_EQ(0u, GetProtectedVolumeFlags(volume));
    List(kName, 0x123);
    EXPECT_TRUE(IsProtectedVolumeListed(volume));
    EXPECT_EQ(0x123u, GetProtectedVolumeFlags(volume));
    UNICODE_STRING id = Counted(u"\\Device\\B");
    for (auto* list = gProtectedVolumeList.load();; list = nullptr) {
        gProtectedVolumeList = list;
        EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Starved(1, [&] { return AddProtectedVolume(&id, 0); }));
        EXPECT_TRUE(Said(list ? "Kvr!AddProtectedVolume [507]" : "Kvr!AddProtectedVolume [527]"));
        if (!list) break;
        m_list = list;
    }
    gProtectedVolumeList = m_list;
}

}  // namespace
