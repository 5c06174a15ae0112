// Which way a read or a write of a filtered volume takes: down to the volume, into the swap, to the driver's
// own files, or back with a refusal.
#include "config/config_location.h"
#include "driver/record/hardening.h"
#include "platform/host/memory/paging_files.h"
#include "platform/host/sync/clock.h"
#include "redirect/redirect.h"
#include "redirect/request_path.h"
#include "tests/support/loaded_driver.h"
#include "tests/support/paged_out_text.h"

namespace {

constexpr LONGLONG kAt = 0x10000;

class Requests : public LoadedDriver {
protected:
    // Writes one sector of its own content and tells whether it went into the swap.
    bool IsRedirected(PFILE_OBJECT file = nullptr, LONGLONG at = kAt) {
        const Bytes data(S, ++m_fill);
        const host::Outcome outcome = Write(volume, at, data, file);
        EXPECT_EQ(STATUS_SUCCESS, outcome.status);
        EXPECT_EQ(S, outcome.information);
        return !Holds(at, data);
    }
    bool IsRedirected(const char16_t* name) {
        TestFile file(name);
        return IsRedirected(&file.object);
    }
    // Whether a read of what is redirected comes from the swap.
    bool SeesSwap(PFILE_OBJECT file = nullptr) {
        Bytes data(S);
        EXPECT_EQ(STATUS_SUCCESS, Send(volume, IRP_MJ_READ, kAt, data, file).status);
        return data[0] == m_fill;
    }
    // For what the request does besides.
    void Ask(PVOLUME_EXTENSION record, UCHAR major, PFILE_OBJECT file = nullptr) {
        Bytes data(S);
        KVR_DISCARD(Send(record, major, kAt, data, file), "its traces are looked at");
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
    void Discard(LONGLONG at = kAt) {
        DiscardSwappedChunks(volume);
        std::fill_n(At(at), S, 0);
    }

private:
    UCHAR m_fill = 0;
};

TEST_F(Requests, NamesDecideWhatStaysOnAProtectedVolume) {
    Protect();
    const struct {
        const char16_t* name;
        bool written, read;  // in the swap
        ULONG isVolatile = 0;
    } cases[] = {
        {u"\\file", true, true},
        {u"", true, true},
        {u"\\HIBERFIL.SYS", false, false},
        {u"\\hibernate.sys", false, false},
        {u"\\x\\hiberfil.sys", true, true},
        {u"\\Windows\\BootStat.dat", false, true},
        {u"\\boot\\bcd", false, true},
        {u"\\x\\Boot\\BCD", true, true},
        {u"\\kvr.swp", true, false},
        {u"\\kvr.SWP.16", true, false},
        {u"\\kvr.swp.160", true, true},
        {u"\\kvr.swp.1", true, true},
        {u"\\kvr.swq", true, true},
        {u"\\x\\kvr.swp", true, true},
        {u"\\kvr.MAP", true, false},
        {u"\\abc\\system32\\drivers\\kvr.cfg.x", true, true},
        {u"\\Windows\\System32\\config\\SYSTEM", true, true, 1},
        {u"\\WINDOWS\\system32\\CONFIG\\system.log", true, true, 1},
        {u"\\Windows\\System32\\config\\SYSTEM.LOG1", true, true, 1},
        {u"\\Windows\\System32\\config\\SYSTEM.LOG2", true, true},
        {u"\\PageFile.sys", false, false},
    };
    EXPECT_EQ(0, KeReadStateEvent(&gBootStatusEvent));
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.name));
        TestFile file(c.name);
        EXPECT_EQ(c.written, IsRedirected(&file.object));
        if (c.written) {
            EXPECT_EQ(c.isVolatile, VolatileOf(kAt));
        }
        Discard();
        EXPECT_TRUE(IsRedirected()) << "no file is not the paging file";
        EXPECT_EQ(c.read, SeesSwap(&file.object));
        EXPECT_TRUE(SeesSwap());
        Discard();
    }
    EXPECT_NE(0, KeReadStateEvent(&gBootStatusEvent));
}

// The stricter rules: a paging file by what the kernel knows of it, the system's other files on the system's
// volume only, by their whole names; for reads and writes alike.
TEST_F(Requests, FewerFilesStayOnAHardenedVolume) {
    Protect();
    gHardening = gConfigLoaded = TRUE;
    const struct {
        const char16_t* name;
        bool holdsConfig, pages;
        bool redirected;
    } cases[] = {
        {u"\\pagefile.sys", true, false, true},
        {u"\\pagefile.sys", false, true, false},
        {u"\\x\\SwapFile.sys", false, true, false},
        {u"\\hiberFil.sys", true, false, false},
        {u"\\hiberfil.sys", false, false, true},
        {u"\\hibernate.sys", true, false, false},
        {u"\\hibernate.sys", false, false, true},
        {u"\\boot\\bcd", true, false, false},
        {u"\\Boot\\BCD", false, false, true},
        {u"\\Windows\\BootStat.dat", true, false, false},
        {u"\\Windows\\bootstat.dat", false, false, true},
        {u"\\x\\Windows\\bootstat.dat", true, false, true},
        {u"\\bootstat.dat", true, false, true},
        {u"\\kvr.swp", true, false, true},
        {u"\\kvr.map", false, false, true},
        {u"\\x\\system32\\drivers\\kvr.cfg", false, false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.name) + (c.holdsConfig ? " of the system" : ""));
        for (auto& offset : volume->PreloadConfigLocation) offset = c.holdsConfig ? 0x8000 : 0;
        TestFile file(c.name);
        if (c.pages) host::AddPagingFile(&file.object);
        EXPECT_EQ(c.redirected, IsRedirected(&file.object));
        Discard();
        EXPECT_TRUE(IsRedirected()) << "no file is none of them";
        EXPECT_EQ(c.redirected, SeesSwap(&file.object));
        Discard();
        host::RemovePagingFile(&file.object);
    }
    EXPECT_NE(0, KeReadStateEvent(&gBootStatusEvent));
    gBootStoreElsewhere = TRUE;
    EXPECT_TRUE(IsRedirected(u"\\Boot\\BCD"));
    Discard();
    for (auto& offset : volume->PreloadConfigLocation) offset = 0;
    EXPECT_EQ(0, Captured(0)) << "the tool was not writing";
    gConfigToolWrites = 1;
    EXPECT_FALSE(IsRedirected(u"\\x\\system32\\drivers\\kvr.cfg"));
    EXPECT_EQ(kAt, Captured(0));
    gConfigToolWrites = 0;
}

// What is to be protected and cannot be takes no writes, but of the files that never belong to its state.
// Without the stricter rules it takes them as an unprotected volume does.
TEST_F(Requests, WhatCannotBeProtectedIsNotWritten) {
    constexpr NTSTATUS refused = STATUS_MEDIA_WRITE_PROTECTED, ok = STATUS_SUCCESS;
    Protect();
    Attach();
    TestFile file(u"\\file"), pagefile(u"\\pagefile.sys"), named(u"\\x\\system32\\drivers\\kvr.cfg");
    host::AddPagingFile(&pagefile.object);
    SWAP_FILE* storage = volume->SwapFile;
    const struct {
        const char* what;
        ULONG state;
        bool isProtected, drops, deferred, unread;
        NTSTATUS written, read;
        bool reaches;  // the volume's own sectors
    } cases[] = {
        {"a bad map", kSwapMapBad, false, false, false, false, refused, ok, false},
        {"no storage", kSwapNoLocation, false, true, false, false, refused, ok, false},
        {"storage made anew", kSwapNoLocation, false, false, true, false, ok, ok, true},
        {"not held, not protected", kSwapFilesNotHeld, false, true, false, false, refused, ok, false},
        {"not held, changes to keep", kSwapFilesNotHeld, true, false, false, false, refused, ok, false},
        {"not held, changes to drop", kSwapFilesNotHeld, true, true, false, false, ok, ok, false},
        {"sound", kSwapUsable, true, false, false, false, ok, ok, false},
        {"not read", kSwapUsable, true, false, false, true, STATUS_DEVICE_NOT_READY, STATUS_DEVICE_NOT_READY,
         false},
    };
    for (const bool hardened : {true, false}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(c.what + std::string(hardened ? ", hardened" : ""));
            gHardening = hardened;
            volume->IsProtected = TRUE;
            volume->SwapState = kSwapUsable;
            volume->ProtectionDeferred = c.deferred;
            gProtectedVolumeList.load()->DropsAtNextBoot = c.drops;
            ASSERT_TRUE(IsRedirected(&file.object));  // something that reads go on seeing
            volume->IsProtected = c.isProtected;
            volume->SwapState = c.state;
            volume->SwapMapLoaded = !c.unread;
            Bytes data(S, 0xAB);
            EXPECT_EQ(hardened ? c.written : ok, Write(volume, kAt, data, &file.object).status);
            EXPECT_EQ(hardened ? c.reaches : !c.isProtected, Holds(kAt, data));
            if (hardened) {
                EXPECT_EQ(c.written, Write(volume, kAt, data, &named.object).status)
                    << "nobody's configuration";
            }
            EXPECT_EQ(hardened ? c.read : ok, Send(volume, IRP_MJ_READ, kAt, data, &file.object).status);
            if (c.state == kSwapFilesNotHeld && c.isProtected) {
                EXPECT_EQ(hardened && !c.drops, SeesSwap());
            }
            EXPECT_EQ(ok, Write(volume, 2 * kAt, Bytes(S, 0xCD), &pagefile.object).status);
            EXPECT_TRUE(Holds(2 * kAt, Bytes(S, 0xCD)));
            volume->SwapMapLoaded = TRUE;
            Discard();
            Discard(2 * kAt);
        }
    }
    gHardening = TRUE;
    volume->IsProtected = TRUE;
    volume->SwapState = kSwapUsable;
    volume->SwapFile = nullptr;
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Starved(1, [&] { return Write(volume, kAt, Bytes(S, 1)).status; }))
        << "no memory for its object";
    volume->SwapFile = storage;
    host::RemovePagingFile(&pagefile.object);
}

// Known by its object and where that keeps its name, which may be paged out; an object at the same address with
// another name is another file.
TEST_F(Requests, ThePagingFileIsKnownByItsObjectAndItsNamesPlace) {
    Protect();
    support::PagedOutText name(u"\\pagefile.sys");
    TestFile file(u"\\pagefile.sys"), other(u"\\anotherfile1");
    ASSERT_EQ(name.string.Length, other.object.FileName.Length);
    const UNICODE_STRING own = name.string, place = other.object.FileName;
    const UNICODE_STRING shorter = {4, 4, own.Buffer};
    const struct {
        UNICODE_STRING name;
        bool redirected;
        int faults;
    } cases[] = {{own, false, 1}, {own, false, 0}, {place, true, 0}, {shorter, true, 0}, {own, false, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        file.object.FileName = c.name;
        EXPECT_EQ(c.redirected, IsRedirected(&file.object));
        EXPECT_EQ(c.faults, name.faults);
        Discard();
        EXPECT_TRUE(IsRedirected());
        EXPECT_EQ(c.redirected, SeesSwap(&file.object));
        Discard();
        name.PageOut();  // once more: a file that is known needs no look at its name
    }
    // Another object, whose name lies there now.
    std::memcpy(own.Buffer, other.name.data(), own.Length);
    other.object.FileName = own;
    EXPECT_TRUE(IsRedirected(&other.object));
    Discard();
    file.object.FileName.Length = 0;
}

// Of the file objects that a request may carry the first counts; a master's only when the request is a part.
TEST_F(Requests, WhichFileARequestIsFor) {
    TestFile original(u"\\original"), stack(u"\\stack"), master(u"\\master");
    const struct {
        bool isOriginal, onStack, associated, onMaster;
        std::string trace;
    } cases[] = {{true, true, true, true, ":\\original]"},
                 {false, true, true, true, ":\\stack]"},
                 {false, false, true, true, ":\\master]"},
                 {false, false, true, false, ""},
                 {false, false, false, false, ""}};
    volume->SuppressWriteTrace = FALSE;
    Protect();
    for (const auto& c : cases) {
        Bytes data(S);
        mark = host::DebugMark();
        EXPECT_EQ(STATUS_SUCCESS,
                  host::Send(volume->FilterDevice, {.major = IRP_MJ_WRITE,
                                                    .associated = c.associated,
                                                    .length = S,
                                                    .offset = kAt,
                                                    .buffer = data.data(),
                                                    .originalFile = c.isOriginal ? &original.object : nullptr,
                                                    .stackFile = c.onStack ? &stack.object : nullptr,
                                                    .masterFile = c.onMaster ? &master.object : nullptr})
                      .status);
        EXPECT_EQ(c.trace.empty() ? 0u : 1u, TimesSaid(mark, "Kvr!Write("));
        EXPECT_TRUE(c.trace.empty() || Said(c.trace)) << c.trace;
    }
}

// Each alone lets requests pass to the volume.
TEST_F(Requests, WhatKeepsAVolumeFromBeingRedirected) {
    EXPECT_FALSE(IsRedirected(u"\\file")) << "nothing is configured";
    Protect();
    host::FailCall(host::FaultBit(host::Fault::Allocate), 1);
    EXPECT_FALSE(IsRedirected()) << "no memory for the storage's object";
    host::DisarmFaults();
    EXPECT_TRUE(IsRedirected(u"\\file")) << "protected at its first request after the parse";
    Discard();
    const std::function<void(bool)> obstacles[] = {
        [](bool on) { gTesselEnabled = !on; },
        [](bool on) { gConfigureBusy = on; },  // half a configuration protects nothing
        [&](bool on) { volume->IsListed = !on; },
        [&](bool on) {
            volume->IsProtected = !on;
            volume->ProtectionDeferred = on;
        },
    };
    for (const auto& obstacle : obstacles) {
        SCOPED_TRACE(&obstacle - obstacles);
        EXPECT_TRUE(IsRedirected());
        obstacle(true);
        EXPECT_FALSE(SeesSwap());
        EXPECT_FALSE(IsRedirected());
        obstacle(false);
        Discard();
    }
    gConfigLoaded = TRUE;
    gConfigureBusy = 1;  // a late-comer that finds it loaded
    EXPECT_TRUE(IsRedirected());
    gConfigureBusy = 0;
    volume->SwapMapLoaded = FALSE;
    volume->IsProtected = TRUE;
    EXPECT_FALSE(IsRedirected()) << "the load finds no map";
    EXPECT_EQ(kSwapNoLocation, volume->SwapState);
}

TEST_F(Requests, WhoIsLedToItsStorage) {
    const struct {
        bool enabled, isProtected;
        ULONG media;
        bool attached;
    } cases[] = {{false, true, FixedMedia, false},
                 {true, false, FixedMedia, false},
                 {true, true, RemovableMedia, false},
                 {true, true, FixedMedia, true}};
    volume->ProtectionDeferred = TRUE;  // as it is made here, so it stays
    for (const UCHAR major : {IRP_MJ_READ, IRP_MJ_WRITE}) {
        for (const auto& c : cases) {
            gTesselEnabled = c.enabled;
            volume->IsProtected = c.isProtected;
            volume->MediaType = c.media;
            volume->SwapFile = nullptr;
            Ask(volume, major);
            EXPECT_EQ(c.attached, volume->SwapFile != nullptr);
            volume->MediaType = FixedMedia;
        }
        const SIZE_T asked = TimesSaid(mark, "Kvr!GetSwapFile");
        Ask(volume, major);
        EXPECT_EQ(asked, TimesSaid(mark, "Kvr!GetSwapFile")) << "once";
    }
    EXPECT_EQ(nullptr, gSwapFileList->pNext);
}

TEST_F(Requests, TheDriversOwnFilesAreCapturedWhileTheyAreWritten) {
    const char16_t* config = u"\\Windows\\System32\\Drivers\\KVR.cfg";
    Protect(0);
    volume->IsProtected = FALSE;
    volume->ProtectionDeferred = TRUE;
    const struct {
        const char16_t* name;
        bool allocating, loaded;
        bool fails;
        bool map, swap, text;  // what is learned
    } cases[] = {
        {u"\\kvr.MAP", true, false, false, true, false, false},
        {u"\\kvr.SWP", true, false, false, false, true, false},
        {u"\\kvr.swp.07", true, false, false, false, true, false},
        {config, true, false, false, false, false, true},
        {u"\\kvr.MAP", true, false, true, false, false, false},
        {u"\\kvr.SWP", true, false, true, false, false, false},
        {config, true, false, true, false, false, false},
        {u"\\kvr.MAP", true, true, false, false, false, false},
        {u"\\kvr.SWP", false, false, false, false, false, false},
        {u"\\x\\kvr.MAP", true, false, false, false, false, false},
    };
    LONGLONG at = kAt;
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        ForgetMaps();
        PostloadConfigPrepare();
        volume->SwapAllocating = c.allocating;
        volume->SwapMapLoaded = c.loaded;
        device->verdict = [&](const auto&) { return c.fails ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS; };
        TestFile file(c.name);
        const Bytes data(2 * S, static_cast<UCHAR>(at >> 12));
        EXPECT_EQ(c.fails ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS,
                  Write(volume, at, data, &file.object).status);
        EXPECT_EQ(!c.fails, Holds(at, data)) << "it reaches the volume";
        EXPECT_EQ(c.swap ? FreeList({{at, 2 * S}}) : FreeList(), FreeSpace());
        EXPECT_EQ(c.text ? at : 0, Captured(0));
        EXPECT_EQ(c.text ? at + S : 0, Captured(1));
        FastMutexLock lock(volume->SwapLock);
        EXPECT_EQ(c.map, volume->MapFileChunks.Root != &TreeNil);
        at += 0x1000;
    }
    device->verdict = nullptr;
    ForgetMaps();
    volume->SwapAllocating = TRUE;
    volume->SwapMapLoaded = FALSE;
    EXPECT_FALSE(IsRedirected());
    EXPECT_EQ(FreeList(), FreeSpace()) << "made for no file";
    PostloadConfigPrepare();
    for (auto& offset : volume->PreloadConfigLocation) offset = 0x8000;
    EXPECT_FALSE(IsRedirected(config));
    EXPECT_EQ(0, Captured(0)) << "its place is known";
    volume->PreloadConfigLocation[15] = 0;
    volume->IsProtected = TRUE;
    EXPECT_FALSE(IsRedirected(config)) << "captured on a protected volume too";
    EXPECT_EQ(kAt, Captured(0));
}

TEST_F(Requests, WritesThroughAVolumeHandleAreRefusedOnceItsSectorsAreTheDrivers) {
    TestFile handle(u""), file(u"\\file");
    handle.object.Flags = FO_VOLUME_OPEN;
    MAP_LOCATION_ENTRY run{};
    const struct {
        PFILE_OBJECT file;
        LONGLONG config;
        bool map;
        NTSTATUS status;
    } cases[] = {{&handle.object, 0, false, STATUS_SUCCESS},
                 {&handle.object, 0x8000, false, STATUS_MEDIA_WRITE_PROTECTED},
                 {&handle.object, 0, true, STATUS_MEDIA_WRITE_PROTECTED},
                 {&file.object, 0x8000, true, STATUS_SUCCESS},
                 {nullptr, 0x8000, true, STATUS_SUCCESS}};
    for (const bool traced : {false, true}) {
        volume->SuppressWriteTrace = !traced;
        for (const auto& c : cases) {
            volume->PreloadConfigLocation[0] = c.config;
            volume->MapLocation = c.map ? &run : nullptr;
            const host::Outcome outcome = Write(volume, kAt, Bytes(S), c.file);
            EXPECT_EQ(c.status, outcome.status) << &c - cases;
            EXPECT_EQ(c.status == STATUS_SUCCESS ? S : 0, outcome.information);
        }
        volume->MapLocation = nullptr;
        EXPECT_EQ(traced ? 2u : 0u, TimesSaid(mark, "Kvr!Write: direct access BLOCKING"));
    }
}

TEST_F(Requests, EverythingIsRefusedOnAProtectedRemovableVolume) {
    PVOLUME_EXTENSION stick =
        AddStarted({.name = u"\\Device\\Stick", .characteristics = FILE_REMOVABLE_MEDIA}).volume;
    gTesselEnabled = gRVProtect = TRUE;
    DRIVER_OBJECT ntfs{}, fat{};
    ntfs.DriverName = Counted(u"\\FileSystem\\NTFS");
    fat.DriverName = Counted(u"\\FileSystem\\fastfat");
    DEVICE_OBJECT mounted{}, onFat{}, onNtfs{};
    onFat.DriverObject = &fat;
    onNtfs.DriverObject = &ntfs;
    VPB none{}, without{}, ofFat{}, ofNtfs{};
    without.DeviceObject = &mounted;
    ofFat.DeviceObject = &onFat;
    ofNtfs.DeviceObject = &onNtfs;
    TestFile file(u"\\pagefile.sys");
    EXPECT_EQ(STATUS_MEDIA_WRITE_PROTECTED, Write(stick, kAt, Bytes(S)).status);
    for (VPB* vpb : {static_cast<VPB*>(nullptr), &none, &without, &ofFat, &ofNtfs}) {
        file.object.Vpb = vpb;
        EXPECT_EQ(vpb == &ofNtfs ? STATUS_NOT_SUPPORTED : STATUS_MEDIA_WRITE_PROTECTED,
                  Write(stick, kAt, Bytes(S), &file.object).status);
    }
    gTesselEnabled = FALSE;
    EXPECT_EQ(STATUS_SUCCESS, Write(stick, kAt, Bytes(S)).status);
}

// It would wait for itself, or for a write that waits for it.
TEST_F(Requests, AWriteFromWithinAWriteDoesNotWait) {
    Protect();
    ULONG transfers = 0;
    std::thread waits;
    device->verdict = [&](const FilteredStack::Transfer& transfer) {
        if (!transfer.isWrite || ++transfers != 1) return STATUS_SUCCESS;
        waits = std::thread([&] { EXPECT_EQ(STATUS_SUCCESS, Write(volume, kAt + S, Bytes(2 * S, 3)).status); });
        for (bool two = false; !two; std::this_thread::yield()) {
            FastMutexLock lock(volume->WriteOrderLock);
            two = volume->WritesUnderWay.Flink != volume->WritesUnderWay.Blink;
        }
        EXPECT_EQ(STATUS_SUCCESS, Write(volume, kAt, Bytes(3 * S, 2)).status);
        return STATUS_SUCCESS;
    };
    EXPECT_EQ(STATUS_SUCCESS, Write(volume, kAt, Bytes(2 * S, 1)).status);
    waits.join();
    EXPECT_EQ(Bytes(S, 2), Read(kAt, S));
    EXPECT_EQ(Bytes(2 * S, 3), Read(kAt + S, 2 * S));
}

TEST_F(Requests, MapIsSavedAtMostEveryThirtySeconds) {
    Protect();
    host::SetSystemTime(host::TimeOf(2026, 5, 4));
    const auto saves = [&] {
        EXPECT_TRUE(IsRedirected(u"\\file"));
        return TimesSaid(mark, "Kvr!WriteSwapMap: Saved");
    };
    EXPECT_EQ(1u, saves());
    EXPECT_EQ(host::SystemTime(), volume->LastMapSaveTime.load());
    host::AdvanceTime(30 * host::kTicksPerSecond);
    EXPECT_EQ(1u, saves());
    host::AdvanceTime(1);
    EXPECT_EQ(2u, saves());
    EXPECT_EQ(host::SystemTime(), volume->LastMapSaveTime.load());
    host::AdvanceTime(-3600 * host::kTicksPerSecond);
    EXPECT_EQ(3u, saves()) << "the clock was set back";
    EXPECT_EQ(3u, saves());
    // None while the next boot gives everything up anyway, unless another configuration waits for it.
    PROTECTED_VOLUME* entry = gProtectedVolumeList;
    SIZE_T expected = 3;
    const struct {
        bool hardened, drops, written, dirty;
        ULONG saved;
    } cases[] = {{true, true, false, false, 0},
                 {false, true, false, false, 1},
                 {true, false, false, false, 1},
                 {true, true, true, false, 1},
                 {true, true, false, true, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        gHardening = c.hardened;
        entry->DropsAtNextBoot = c.drops;
        gConfigWrittenByTool = c.written;
        gConfigDirty = c.dirty;
        host::AdvanceTime(31 * host::kTicksPerSecond);
        expected += c.saved;
        EXPECT_EQ(expected, saves());
    }
    // What was written last before a silence is saved by a flush, when a write would save it; with the stricter
    // rules only.
    entry->DropsAtNextBoot = gConfigWrittenByTool = gConfigDirty = FALSE;
    for (const bool hardened : {true, false}) {
        gHardening = hardened;
        for (const int seconds : {30, 31}) {
            host::AdvanceTime(31 * host::kTicksPerSecond);
            EXPECT_EQ(++expected, saves());
            host::AdvanceTime(seconds * host::kTicksPerSecond);
            volume->MapDirty = TRUE;
            expected += hardened && seconds > 30;
            for (int flush = 0; flush < 2; ++flush) {
                EXPECT_EQ(STATUS_SUCCESS,
                          host::Send(volume->FilterDevice, {.major = IRP_MJ_FLUSH_BUFFERS}).status);
                EXPECT_EQ(expected, TimesSaid(mark, "Kvr!WriteSwapMap: Saved"));
            }
        }
    }
    host::AdvanceTime(31 * host::kTicksPerSecond);
    gHardening = TRUE;
    volume->MapDirty = FALSE;
    EXPECT_EQ(STATUS_SUCCESS, host::Send(volume->FilterDevice, {.major = IRP_MJ_FLUSH_BUFFERS}).status);
    EXPECT_EQ(expected, TimesSaid(mark, "Kvr!WriteSwapMap: Saved")) << "nothing has changed";
    gHardening = FALSE;
    host::FollowRealClock();
}

// Who is told of: everything until the start has ended, and whoever asks for it afterwards.
TEST_F(Requests, Traces) {
    TestFile file(u"\\file");
    PVOLUME_EXTENSION disk = AddDisk(u"\\Device\\Harddisk0\\DR0").volume;
    const struct {
        bool isDisk, suppressed, isProtected, enabled, hasFile;
        int reads, writes;
    } cases[] = {
        {false, false, true, true, true, 1, 1},  {false, true, true, true, true, 0, 0},
        {false, false, false, true, true, 0, 0}, {false, false, true, true, false, 1, 0},
        {false, false, true, false, true, 1, 0}, {false, false, true, false, false, 0, 0},
        {true, false, false, false, true, 1, 1}, {true, false, false, false, false, 1, 1},
        {true, true, false, false, true, 0, 0},
    };
    volume->ProtectionDeferred = TRUE;
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        PVOLUME_EXTENSION record = c.isDisk ? disk : volume;
        record->SuppressReadTrace = record->SuppressWriteTrace = c.suppressed;
        volume->IsProtected = c.isProtected;
        volume->SwapFile = nullptr;
        gTesselEnabled = c.enabled;
        const SIZE_T reads = TimesSaid(mark, "Kvr!Read("), writes = TimesSaid(mark, "Kvr!Write(");
        for (const UCHAR major : {IRP_MJ_READ, IRP_MJ_WRITE})
            Ask(record, major, c.hasFile ? &file.object : nullptr);
        EXPECT_EQ(c.reads, static_cast<int>(TimesSaid(mark, "Kvr!Read(") - reads));
        EXPECT_EQ(c.writes, static_cast<int>(TimesSaid(mark, "Kvr!Write(") - writes));
    }
}

// The thread that holds the files is started once, by the first request that has a reason.
TEST_F(Requests, WhenTheFilesAreHeld) {
    TestFile named(u"\\file"), unnamed(u"");
    MAP_LOCATION_ENTRY run{};
    const struct {
        UCHAR major;
        PFILE_OBJECT file;
        ULONG media;
        bool isProtected, map;
        int config;  // offsets that are known
        ULONG starts;
    } cases[] = {
        {IRP_MJ_WRITE, &named.object, FixedMedia, true, false, 0, 1},
        {IRP_MJ_WRITE, &named.object, FixedMedia, false, true, 0, 1},
        {IRP_MJ_WRITE, &named.object, FixedMedia, false, false, 16, 1},
        {IRP_MJ_WRITE, &named.object, FixedMedia, false, false, 15, 0},
        {IRP_MJ_WRITE, &unnamed.object, FixedMedia, true, true, 16, 0},
        {IRP_MJ_WRITE, nullptr, FixedMedia, true, true, 16, 0},
        {IRP_MJ_WRITE, &named.object, RemovableMedia, false, true, 16, 0},
        {IRP_MJ_READ, nullptr, FixedMedia, false, false, 0, 1},
        {IRP_MJ_READ, nullptr, FixedMedia, false, false, 1, 0},
        {IRP_MJ_READ, nullptr, FixedMedia, true, false, 16, 1},
        {IRP_MJ_READ, nullptr, RemovableMedia, false, false, 0, 0},
    };
    volume->ProtectionDeferred = volume->SwapMapLoaded = gConfigLoaded = TRUE;
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        host::ThreadGate gate;
        volume->ArmThreadHandle = nullptr;
        volume->MediaType = c.media;
        volume->IsProtected = c.isProtected;
        volume->MapLocation = c.map ? &run : nullptr;
        for (int i = 0; i < 16; ++i) volume->PreloadConfigLocation[i] = i < c.config ? 0x8000 : 0;
        for (int twice = 0; twice < 2; ++twice) Ask(volume, c.major, c.file);
        EXPECT_EQ(c.starts, gate.Held());
        volume->MapLocation = nullptr;
        for (auto& offset : volume->PreloadConfigLocation) offset = 0;
        gate.ReleaseAll();
        host::JoinSystemThreads();
        KernelHandle(volume->ArmThreadHandle.exchange(nullptr)).Reset();
    }
    volume->MediaType = FixedMedia;
    // Once more each when the storage is known only then, and where the file could not be opened before.
    const struct {
        bool provisioning, map;
        int config;
        PFILE_OBJECT file;
        ULONG starts;
        bool opened = false;
    } later[] = {{false, false, 0, nullptr, 1},
                 {true, true, 0, nullptr, 0},
                 {false, true, 0, nullptr, 1},
                 {false, true, 16, nullptr, 0},
                 {false, true, 16, &named.object, 0, true},
                 {false, true, 16, &named.object, 1},
                 {false, true, 16, &named.object, 0}};
    volume->IsProtected = FALSE;
    for (const auto& c : later) {
        SCOPED_TRACE(&c - later);
        gProvisionThread = c.provisioning ? KeGetCurrentThread() : nullptr;
        volume->MapLocation = c.map ? &run : nullptr;
        gConfigFileHandle = c.opened ? device : nullptr;
        for (auto& offset : volume->PreloadConfigLocation) offset = c.config ? 0x8000 : 0;
        host::ThreadGate gate;
        if (c.starts)
            host::FailCall(host::FaultBit(host::Fault::ThreadCreate), 1);  // the next request tries again
        for (int times = 0; times < 3; ++times) Ask(volume, c.file ? IRP_MJ_WRITE : IRP_MJ_READ, c.file);
        EXPECT_EQ(c.starts, gate.Held());
        host::DisarmFaults();
        volume->MapLocation = nullptr;
        gate.ReleaseAll();
        host::JoinSystemThreads();
    }
    for (auto& offset : volume->PreloadConfigLocation) offset = 0;
    KernelHandle(volume->ArmThreadHandle.exchange(nullptr)).Reset();
    host::ThreadGate gate;
    volume->ArmThreadStarting = 1;  // another request is at it
    Ask(volume, IRP_MJ_READ);
    EXPECT_EQ(0u, gate.Held());
    EXPECT_EQ(1, volume->ArmThreadStarting.exchange(0));
    Ask(volume, IRP_MJ_READ);
    EXPECT_TRUE(volume->StorageToHold);
    volume->MapLocation = &run;
    gate.ReleaseAll();
    host::JoinSystemThreads();
    EXPECT_FALSE(volume->StorageToHold) << "the thread found a location after all";
    volume->MapLocation = nullptr;
    KernelHandle(volume->ArmThreadHandle.exchange(nullptr)).Reset();
}

// What was redirected belonged to the medium that is gone.
TEST_F(Requests, AChangedMediumLosesItsRedirections) {
    Protect();
    const struct {
        NTSTATUS status;
        ULONG media;
        bool lost;
    } cases[] = {{STATUS_VERIFY_REQUIRED, FixedMedia, false},
                 {STATUS_IO_DEVICE_ERROR, RemovableMedia, false},
                 {STATUS_VERIFY_REQUIRED, RemovableMedia, true}};
    EXPECT_TRUE(IsRedirected());
    for (const auto& c : cases) {
        device->verdict = [&](const auto&) { return c.status; };
        volume->MediaType = c.media;
        Bytes data(S);
        EXPECT_EQ(c.status, Send(volume, IRP_MJ_READ, kAt, data).status);
        EXPECT_EQ(c.lost ? 0 : S, Used());
        volume->MediaType = FixedMedia;
    }
}

}  // namespace
