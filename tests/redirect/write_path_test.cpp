#include "platform/host/sync/clock.h"
#include "platform/owners.h"
#include "redirect/redirect.h"
#include "tests/redirect/redirect_fixture.h"

namespace {

constexpr LONGLONG kAt = 0x10000;

class WritePath : public RedirectTest {
protected:
    enum class Fate { Passed, Redirected };
    // Writes one sector of its own content and tells where it went.
    Fate FateOf(PFILE_OBJECT file, LONGLONG at = kAt) {
        const std::vector<UCHAR> data(512, ++m_fill);
        const host::Outcome outcome = Write(volume, at, data, file);
        EXPECT_EQ(STATUS_SUCCESS, outcome.status);
        EXPECT_EQ(512u, outcome.information);
        return Holds(at, data) ? Fate::Passed : Fate::Redirected;
    }
    Fate FateOf(const char16_t* name) {
        TestFile file(name);
        return FateOf(&file.object);
    }
    ULONG VolatileOf(LONGLONG at) {
        FastMutexLock lock(volume->SwapLock);
        TREE_NODE* node = tree_find(&volume->SwappedChunks, &at);
        return node ? static_cast<SWAPPED_CHUNK*>(node->Record)->bVolatile : 99;
    }
    LONGLONG Captured(ULONG slot) {
        FastMutexLock lock(volume->SwapLock);
        return volume->PostloadConfigLocation[slot];
    }

private:
    UCHAR m_fill = 0;
};

TEST_F(WritePath, PassesWhatIsNotProtected) {
    EXPECT_EQ(Fate::Passed, FateOf(u"\\file"));
    Protect();
    gTesselEnabled = FALSE;
    EXPECT_EQ(Fate::Passed, FateOf(u"\\file"));
    gTesselEnabled = TRUE;
    EXPECT_EQ(Fate::Redirected, FateOf(u"\\file")) << "protected at its first request after the parse";
    EXPECT_EQ(Fate::Redirected, FateOf(static_cast<PFILE_OBJECT>(nullptr)));
}

TEST_F(WritePath, NamesDecideWhatStaysOnAProtectedVolume) {
    Protect();
    const struct {
        const char16_t* name;
        Fate fate;
    } table[] = {
        {u"\\HIBERFIL.SYS", Fate::Passed},
        {u"\\hibernate.sys", Fate::Passed},
        {u"\\Windows\\BootStat.dat", Fate::Passed},
        {u"\\boot\\bcd", Fate::Passed},
        {u"\\x\\hiberfil.sys", Fate::Redirected},
        {u"\\x\\Boot\\BCD", Fate::Redirected},
        {u"\\kvr.swp", Fate::Redirected},
        {u"\\kvr.map", Fate::Redirected},
        {u"\\abc\\system32\\drivers\\kvr.cfg.x", Fate::Redirected},
        {u"", Fate::Redirected},
    };
    for (const auto& row : table) EXPECT_EQ(row.fate, FateOf(row.name)) << testing::PrintToString(row.name);
    EXPECT_NE(0, KeReadStateEvent(&gBootStatusEvent));
}

TEST_F(WritePath, PagefileIsKnownByItsObjectAndNoFileIsNotIt) {
    Protect();
    EXPECT_EQ(Fate::Redirected, FateOf(static_cast<PFILE_OBJECT>(nullptr))) << "no object is remembered yet";
    TestFile pagefile(u"\\PageFile.sys");
    EXPECT_EQ(Fate::Passed, FateOf(&pagefile.object));
    pagefile.object.FileName.Length = 0;
    EXPECT_EQ(Fate::Passed, FateOf(&pagefile.object));
    EXPECT_EQ(Fate::Redirected, FateOf(static_cast<PFILE_OBJECT>(nullptr)));
}

TEST_F(WritePath, SystemHiveIsRedirectedForThisBootOnly) {
    Protect();
    const struct {
        const char16_t* name;
        ULONG isVolatile;
    } table[] = {{u"\\Windows\\System32\\config\\SYSTEM", 1},
                 {u"\\WINDOWS\\system32\\CONFIG\\system.log", 1},
                 {u"\\Windows\\System32\\config\\SYSTEM.LOG1", 1},
                 {u"\\Windows\\System32\\config\\SYSTEM.LOG2", 0},
                 {u"\\Windows\\System32\\config\\SOFTWARE", 0}};
    LONGLONG at = kAt;
    for (const auto& row : table) {
        TestFile file(row.name);
        EXPECT_EQ(Fate::Redirected, FateOf(&file.object, at));
        EXPECT_EQ(row.isVolatile, VolatileOf(at));
        at += 0x1000;
    }
}

TEST_F(WritePath, ConfigurationIsCapturedEvenOnAProtectedVolumeUntilItsPlaceIsKnown) {
    Protect();
    const char16_t* name = u"\\Windows\\System32\\Drivers\\KVR.cfg";
    EXPECT_EQ(Fate::Passed, FateOf(name));
    EXPECT_EQ(kAt, Captured(0));
    for (auto& offset : volume->PreloadConfigLocation) offset = 0x8000;
    EXPECT_EQ(Fate::Redirected, FateOf(name));
    EXPECT_EQ(0, Captured(1));
}

TEST_F(WritePath, RefusesWritesThroughAVolumeHandleOnceItsSectorsAreTheDrivers) {
    TestFile handle(u"");
    handle.object.Flags = FO_VOLUME_OPEN;
    EXPECT_EQ(Fate::Passed, FateOf(&handle.object));
    volume->PreloadConfigLocation[0] = 0x8000;
    const host::Outcome outcome = Write(volume, kAt, std::vector<UCHAR>(512), &handle.object);
    EXPECT_EQ(STATUS_MEDIA_WRITE_PROTECTED, outcome.status);
    EXPECT_EQ(0u, outcome.information);
}

TEST_F(WritePath, RefusesEverythingOnAProtectedRemovableVolume) {
    PVOLUME_EXTENSION stick =
        AddMemory({.name = u"\\Device\\Stick", .characteristics = FILE_REMOVABLE_MEDIA}).stack.volume;
    gTesselEnabled = gRVProtect = TRUE;
    DRIVER_OBJECT ntfs{}, fat{};
    ntfs.DriverName = Counted(u"\\FileSystem\\NTFS");
    fat.DriverName = Counted(u"\\FileSystem\\fastfat");
    DEVICE_OBJECT mounted{};
    VPB vpb{};
    vpb.DeviceObject = &mounted;
    TestFile file(u"\\pagefile.sys");
    const std::vector<UCHAR> data(512);
    EXPECT_EQ(STATUS_MEDIA_WRITE_PROTECTED, Write(stick, kAt, data).status);
    EXPECT_EQ(STATUS_MEDIA_WRITE_PROTECTED, Write(stick, kAt, data, &file.object).status);
    file.object.Vpb = &vpb;
    EXPECT_EQ(STATUS_MEDIA_WRITE_PROTECTED, Write(stick, kAt, data, &file.object).status);
    mounted.DriverObject = &fat;
    EXPECT_EQ(STATUS_MEDIA_WRITE_PROTECTED, Write(stick, kAt, data, &file.object).status);
    mounted.DriverObject = &ntfs;
    EXPECT_EQ(STATUS_NOT_SUPPORTED, Write(stick, kAt, data, &file.object).status);
}

TEST_F(WritePath, FirstSectorOfAProtectedVolumesDiskIsRefused) {
    StackMemory& disk = AddMemoryDisk(u"\\Device\\Harddisk0\\DR0");
    PVOLUME_EXTENSION record = disk.stack.volume;
    const std::vector<UCHAR> data(512, 1);
    EXPECT_EQ(STATUS_SUCCESS, Write(record, 0, data).status);
    Protect();
    EXPECT_EQ(STATUS_MEDIA_WRITE_PROTECTED, Write(record, 0, data).status);
    EXPECT_EQ(STATUS_SUCCESS, Write(record, 512, data).status);
    EXPECT_EQ(1, disk.data[512]);
}

TEST_F(WritePath, MapIsSavedAtMostEveryThirtySeconds) {
    Protect();
    host::SetSystemTime(host::TimeOf(2026, 5, 4));
    FateOf(u"\\file");
    const LONGLONG first = volume->LastMapSaveTime;
    EXPECT_EQ(host::SystemTime(), first);
    host::AdvanceTime(30 * host::kTicksPerSecond);
    FateOf(u"\\file");
    EXPECT_EQ(first, volume->LastMapSaveTime.load());
    host::AdvanceTime(1);
    FateOf(u"\\file");
    EXPECT_EQ(host::SystemTime(), volume->LastMapSaveTime.load());
    host::FollowRealClock();
}

TEST_F(WritePath, WhileTheConfigurationLoadsWritesPass) {
    Protect();
    ++gConfigureBusy;
    EXPECT_EQ(Fate::Passed, FateOf(u"\\file")) << "half a configuration protects nothing";
    --gConfigureBusy;
    EXPECT_EQ(Fate::Redirected, FateOf(u"\\file"));
}

}  // namespace
