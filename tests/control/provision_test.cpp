// Making, holding and removing storage: who may ask, what the threads do to the files, and what they leave.
#include <atomic>
#include "control/provision_control.h"
#include "driver/record/hardening.h"
#include "driver/record/threads.h"
#include "platform/host/object/object.h"
#include "swap/map_format.h"
#include "tests/support/driver_records.h"
#include "tests/support/told_files.h"

namespace {

using support::StorageRequest;

constexpr LONGLONG M = 1 << 20;
constexpr MAP_LOCATION_ENTRY kRun = {0x1000, 4096};

class Provisioning : public DriverFiles {
protected:
    static NTSTATUS Allocate(SWAP_CONFIG_REQUEST request) {
        return StartSwapAllocation(&request, sizeof(request));
    }
    static NTSTATUS Remove(SWAP_CONFIG_REQUEST request) { return RunSwapRemoval(&request, 128); }
    // Runs an allocation to its end; what the thread ends with.
    NTSTATUS Make(std::int64_t size, const char16_t* name = kName) {
        files.opens.clear();
        files.written.clear();
        files.deleted.clear();
        host::ThreadGate gate;
        EXPECT_EQ(STATUS_SUCCESS, Allocate(StorageRequest(name, size)));
        PKTHREAD thread = gProvisionThread;
        ObReferenceObject(thread);
        EXPECT_TRUE(gate.RunOne());
        const NTSTATUS status = thread->ExitStatus;
        ObDereferenceObject(thread);
        return status;
    }
    // The thread that holds the files, run to its end.
    NTSTATUS Arm() {
        host::ThreadGate gate;
        files.opens.clear();
        volume->ArmThreadHandle = nullptr;
        EXPECT_EQ(STATUS_SUCCESS, StartArmThread(volume));
        PVOID thread = nullptr;
        EXPECT_EQ(STATUS_SUCCESS, ObReferenceObjectByHandle(volume->ArmThreadHandle, THREAD_ALL_ACCESS, nullptr,
                                                            KernelMode, &thread, nullptr));
        EXPECT_TRUE(gate.RunOne());
        const NTSTATUS status = static_cast<PKTHREAD>(thread)->ExitStatus;
        ObDereferenceObject(thread);
        KernelHandle(volume->ArmThreadHandle.exchange(nullptr)).Reset();
        return status;
    }
    static std::u16string Numbered(int i) {
        return u"\\kvr.SWP." +
               std::u16string{static_cast<char16_t>(u'0' + i / 10), static_cast<char16_t>(u'0' + i % 10)};
    }

    SWAP_CONFIG_REQUEST nowhere = StorageRequest(u"\\Device\\Nowhere");
};

TEST_F(Provisioning, OneThreadAtATimeFromTheVeryStart) {
    host::ThreadGate gate;
    for (int round = 0; round < 50; ++round) {
        std::atomic<int> ready = 0, started = 0, refused = 0;
        const auto request = [&] {
            ++ready;
            while (ready < 2) std::this_thread::yield();
            const NTSTATUS answer = Allocate(nowhere);
            started += answer == STATUS_SUCCESS;
            refused += answer == STATUS_FILE_LOCK_CONFLICT;
        };
        std::thread first(request), second(request);
        first.join();
        second.join();
        ASSERT_EQ(1, started);
        ASSERT_EQ(1, refused);
        EXPECT_TRUE(gate.RunOne());
    }
}

TEST_F(Provisioning, StopWaitsForTheThread) {
    EXPECT_EQ(STATUS_SUCCESS, StopSwapThread()) << "nothing runs";
    {
        // One that its starter could not name publishes itself, with a reference of its own.
        KernelHandle handle;
        const auto alone = [](PVOID) { EnterProvisioning(), LeaveProvisioning(STATUS_SUCCESS); };
        ASSERT_EQ(STATUS_SUCCESS, CreateDriverThread(alone, nullptr, &handle));
        host::JoinSystemThreads();
    }
    host::ThreadGate gate;
    ASSERT_EQ(STATUS_SUCCESS, Allocate(StorageRequest(kName, 4 * M)));
    std::atomic<bool> stopped = false;
    std::thread stopper([&] {
        EXPECT_EQ(STATUS_SUCCESS, StopSwapThread());
        stopped = true;
    });
    while (!gProvisionQuit) std::this_thread::yield();
    EXPECT_FALSE(stopped);
    EXPECT_NE(nullptr, gProvisionThread.load()) << "it still runs";
    gate.ReleaseAll();
    stopper.join();
    EXPECT_EQ(nullptr, gProvisionThread.load());
    EXPECT_TRUE(files.opens.empty()) << "told to stop before it began";
    host::FailCall(host::FaultBit(host::Fault::ThreadCreate), 1);
    EXPECT_FALSE(NT_SUCCESS(Allocate(nowhere)));
    host::FailCall(host::FaultBit(host::Fault::ThreadCreate), 1);
    EXPECT_FALSE(NT_SUCCESS(StartArmThread(volume)));
    host::FailCall(host::FaultBit(host::Fault::Allocate), 1);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Allocate(nowhere));
    host::DisarmFaults();
}

TEST_F(Provisioning, NotWhileStorageOrConfigurationIsInUse) {
    PVOLUME_EXTENSION other = AddStarted({.name = u"\\Device\\HarddiskVolume2"}).volume;
    const struct {
        const char* what;
        bool enabled, otherProtected, isVolume;
        LONGLONG config;
        bool isProtected, removable;
        bool refused;     // of the volume itself
        bool allRefused;  // of any
    } cases[] = {
        {"nothing", true, false, true, S, false, false, false, false},
        {"configuration in use", true, true, true, S, false, false, true, true},
        {"switched off", false, true, true, S, false, false, false, false},
        {"no configuration there", true, true, true, 0, false, false, false, false},
        {"no volume", true, true, false, S, false, false, false, false},
        {"protected", true, false, true, 0, true, false, true, false},
        {"protected, switched off", false, false, true, 0, true, false, true, false},
        {"protected, removable", true, false, true, 0, true, true, false, false},
    };
    volume->ProtectionDeferred = TRUE;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        gTesselEnabled = c.enabled;
        other->IsProtected = c.otherProtected;
        other->IsVolume = c.isVolume;
        other->PreloadConfigLocation[0] = c.config;
        volume->IsProtected = c.isProtected;
        volume->MediaType = c.removable ? RemovableMedia : FixedMedia;
        const auto answer = [](bool refused) { return refused ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS; };
        EXPECT_EQ(answer(c.refused), Remove(StorageRequest(u"\\device\\HARDDISKVOLUME1")));
        EXPECT_EQ(answer(c.refused), Allocate(StorageRequest(kName)));
        host::JoinSystemThreads();
        EXPECT_EQ(answer(c.allRefused), Remove(nowhere));
        EXPECT_EQ(c.allRefused, IsConfigVolumeProtected() != FALSE);
    }
    other->IsProtected = volume->IsProtected = FALSE;
    other->IsVolume = TRUE;
    other->PreloadConfigLocation[0] = 0;
    volume->MediaType = FixedMedia;
}

TEST_F(Provisioning, BlocksFillTheFilesUpToTheSizeThatWasAsked) {
    EXPECT_EQ(STATUS_SUCCESS, Make(5 * M + 1));
    using Written = std::map<std::u16string, LONGLONG>;
    EXPECT_EQ((Written{{u"\\kvr.SWP", 6 * M}, {u"\\kvr.MAP", M}}), files.written);
    EXPECT_EQ((std::vector<ToldFiles::Opening>{{u"\\kvr.SWP", FILE_OVERWRITE_IF, FILE_SHARE_READ},
                                               {u"\\kvr.MAP", FILE_OVERWRITE_IF, FILE_SHARE_READ}}),
              files.opens);
    EXPECT_EQ(18u, files.deleted.size()) << "what was there before goes";
    EXPECT_TRUE(volume->SwapAllocating && !volume->SwapMapLoaded);
    EXPECT_TRUE(Said("kvr.SWP written 12288 blocks") && Said("kvr.MAP written 1048576 bytes"));
    EXPECT_EQ(STATUS_SUCCESS, Make(1));
    EXPECT_EQ((Written{{u"\\kvr.SWP", M}, {u"\\kvr.MAP", M}}), files.written);
    files.limit = 2 * M;
    EXPECT_EQ(STATUS_SUCCESS, Make(5 * M));
    EXPECT_EQ((Written{{u"\\kvr.SWP", 2 * M}, {Numbered(1), 2 * M}, {Numbered(2), M}, {u"\\kvr.MAP", M}}),
              files.written);
    files.limit = M;
    EXPECT_EQ(STATUS_DISK_FULL, Make(20 * M)) << "no file follows the sixteenth";
    EXPECT_EQ(17u, files.written.size());
    EXPECT_EQ(M, files.written[Numbered(16)]);
    EXPECT_FALSE(files.written.contains(u"\\kvr.MAP"));
}

TEST_F(Provisioning, WhatEndsItEarly) {
    using Written = std::map<std::u16string, LONGLONG>;
    const Written nothing;
    EXPECT_EQ(STATUS_SUCCESS, Make(0));
    EXPECT_EQ(nothing, files.written);
    EXPECT_EQ(18u, files.deleted.size()) << "no size: only removed";
    EXPECT_TRUE(files.opens.empty());
    for (const bool disk : {true, false}) {
        volume->IsDisk = disk;
        volume->MediaType = disk ? FixedMedia : RemovableMedia;
        EXPECT_EQ(STATUS_SUCCESS, Make(M));
        EXPECT_EQ(nothing, files.written);
    }
    volume->MediaType = FixedMedia;
    files.statuses[u"\\kvr.SWP"] = STATUS_ACCESS_DENIED;
    EXPECT_EQ(STATUS_ACCESS_DENIED, Make(M));
    files.statuses = {{u"\\kvr.MAP", STATUS_ACCESS_DENIED}};
    EXPECT_EQ(STATUS_ACCESS_DENIED, Make(M));
    files.statuses.clear();
    files.io = STATUS_IO_DEVICE_ERROR;
    EXPECT_EQ(STATUS_IO_DEVICE_ERROR, Make(4 * M));
    EXPECT_EQ(M, files.written[u"\\kvr.SWP"]);
    EXPECT_TRUE(Said("ZwWriteFile 0xc0000185"));
    files.io = STATUS_SUCCESS;
    EXPECT_EQ(STATUS_SUCCESS, Make(128 * M));
    EXPECT_EQ(3 * M, files.written[u"\\kvr.MAP"]) << "12 bytes for each sector, to the byte";
    EXPECT_EQ(3u, TimesSaid(mark, "ZwCreateFile 0x") + TimesSaid(mark, "ZwWriteFile 0x"));
    // Told to stop while it writes the one or the other file: what it made goes again.
    for (const char16_t* path : {u"\\kvr.SWP", u"\\kvr.MAP"}) {
        files.onWrite = [&](const std::u16string& now) {
            AddFree(kSwap, S);  // as the captured write would
            gProvisionQuit = now == path ? TRUE : FALSE;
        };
        EXPECT_EQ(STATUS_SUCCESS, Make(128 * M));
        EXPECT_EQ(path[5] == u'S' ? M : 128 * M, files.written[u"\\kvr.SWP"]);
        EXPECT_EQ(path[5] == u'S' ? 0 : M, files.written[u"\\kvr.MAP"]);
        EXPECT_EQ(36u, files.deleted.size());
        EXPECT_EQ(2, std::ranges::count(files.deleted, u"\\kvr.SWP"));
        EXPECT_EQ(0u, Free());
    }
    files.onWrite = nullptr;
    files.onOpen = [](const auto&) { gProvisionQuit = TRUE; };  // before its first block
    EXPECT_EQ(STATUS_SUCCESS, Make(M));
    EXPECT_EQ(36u, files.deleted.size());
    files.onOpen = nullptr;
    volume->BytesPerSector = 0;  // no block
    EXPECT_EQ(STATUS_SUCCESS, Make(M));
    EXPECT_EQ(nothing, files.written);
    volume->BytesPerSector = S;
    // The trial allocation before each block: as much as each file wants, beside the block itself.
    const auto limit = [](SIZE_T trial) { host::SetPoolLimit(trial + 2 * M); };
    files.onWrite = [&](const std::u16string&) { limit(0x1400000); };
    limit(0x1800000);
    EXPECT_EQ(STATUS_SUCCESS, Make(2 * M));
    EXPECT_EQ((Written{{u"\\kvr.SWP", M}, {u"\\kvr.MAP", M}}), files.written);
    EXPECT_TRUE(Said("kvr.SWP cannot allocate NPagedPool"));
    files.onWrite = [&](const std::u16string&) { limit(0x1400000 - 2 * M); };
    limit(0x1800000);
    EXPECT_EQ(STATUS_SUCCESS, Make(M));
    EXPECT_EQ((Written{{u"\\kvr.SWP", M}}), files.written);
    EXPECT_TRUE(Said("kvr.MAP cannot allocate NPagedPool"));
    host::SetPoolLimit(host::kNoPoolLimit);
}

// The location goes before the files, and nothing is protected by storage that has gone.
TEST_F(Provisioning, RemovalForgetsBeforeItDeletes) {
    Locate({kRun});
    EXPECT_EQ(STATUS_SUCCESS, RegSetMapLocation(volume, &kRun, sizeof(kRun)));
    AddFree(kSwap, S);
    Redirect(0, kSwap + S, S);
    volume->SwapState = kSwapMapBad;
    volume->MapReadFailed = volume->MapRetireDue = TRUE;
    EXPECT_EQ(STATUS_SUCCESS, Arm());
    ASSERT_EQ(18u + 1, files.opens.size()) << "the driver's file and the storage";
    files.onDelete = [&](const std::u16string&) {
        EXPECT_EQ(nullptr, volume->MapLocation.load());
        EXPECT_TRUE(registry.values.empty());
        KernelMutexLock lock(volume->StorageMutex);
        EXPECT_TRUE(!volume->SwapFileHandle && !volume->SwapMapFileHandle && !volume->SwapFileHandles[15]);
    };
    EXPECT_EQ(STATUS_SUCCESS, Remove(StorageRequest(kName)));
    std::vector<std::u16string> expected{u"\\kvr.MAP", u"\\kvr.SWP"};
    for (int i = 1; i <= 16; ++i) expected.push_back(Numbered(i));
    EXPECT_EQ(expected, files.deleted);
    EXPECT_EQ(kSwapUsable, volume->SwapState);
    EXPECT_EQ(0u, Used() + Free());
    EXPECT_FALSE(volume->MapReadFailed || volume->MapRetireDue) << "the next map is saved";
    EXPECT_TRUE(volume->ProtectionDeferred && volume->StorageToHold);
    EXPECT_FALSE(Said("ConfigureSwapAllocThread::Delete"));
    EXPECT_EQ(1u, TimesSaid(mark, "ConfigureSwapRemoveThread::Delete done"));
    volume->ProtectionDeferred = FALSE;
    volume->IsProtected = TRUE;
    volume->MediaType = RemovableMedia;
    EXPECT_EQ(STATUS_SUCCESS, Remove(StorageRequest(kName)));
    EXPECT_FALSE(volume->ProtectionDeferred) << "it is protected already";
    volume->MediaType = FixedMedia;
    volume->IsProtected = FALSE;
}

// A device that goes takes along what was held for it.
TEST_F(Provisioning, RemovalOfTheDeviceLetsGoOfEverything) {
    const std::u16string name = u"\\Device\\" + std::u16string(56, u'v');  // as long as a name can be
    FilteredStack& memory = AddStarted({.name = name.c_str()});
    PVOLUME_EXTENSION leaving = memory.volume;
    host::MountProvider(memory.pdo.object, &files);
    const SWAP_CONFIG_REQUEST request = StorageRequest(name.c_str());  // fills the field to its end
    EXPECT_EQ(leaving, FindRequestedVolume(&request).Get());
    Locate(leaving, {{}});
    AddFree(leaving, kSwap, S);
    ASSERT_EQ(STATUS_SUCCESS, StartArmThread(leaving));
    host::JoinSystemThreads();
    leaving->MediaType = RemovableMedia;
    EXPECT_EQ(20u, host::OpenHandles().size());
    EXPECT_EQ(STATUS_SUCCESS, host::SendPnp(memory.pdo.object, IRP_MN_REMOVE_DEVICE));
    EXPECT_EQ(1u, host::OpenHandles().size()) << "the driver's own file";
}

// The storage files are open to nobody else; where that fails for the first two, the storage says so.
TEST_F(Provisioning, HoldingTheFiles) {
    EXPECT_EQ(STATUS_SUCCESS, Arm());
    EXPECT_EQ(1u, files.opens.size()) << "without storage the driver's own file";
    Locate({kRun});
    constexpr NTSTATUS missing = STATUS_OBJECT_NAME_NOT_FOUND;
    const struct {
        std::map<std::u16string, NTSTATUS> fails;
        ULONG before, state;
        NTSTATUS status;
    } cases[] = {
        {{}, 0, 0, 0},
        {{{u"\\kvr.SWP", missing}}, 0, kSwapFilesNotHeld, 0},
        {{{u"\\kvr.MAP", missing}}, 0, kSwapFilesNotHeld, 0},
        {{{u"\\kvr.MAP", missing}}, kSwapMapBad, kSwapMapBad, 0},
        {{{Numbered(1), missing}}, 0, 0, 0},
        {{{Numbered(16), missing}}, 0, 0, missing},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        files.statuses = c.fails;
        volume->SwapState = c.before;
        EXPECT_EQ(c.status, Arm());
        EXPECT_EQ(c.state, volume->SwapState);
        ASSERT_EQ(18u, files.opens.size());
        for (const auto& open : files.opens) EXPECT_TRUE(open.share == 0 && open.disposition == FILE_OPEN);
        EXPECT_EQ(u"\\kvr.SWP", files.opens[0].path);
        EXPECT_EQ(u"\\kvr.MAP", files.opens[1].path);
        EXPECT_EQ(Numbered(16), files.opens[17].path);
        EXPECT_EQ(18 - c.fails.size() + 1, host::OpenHandles().size()) << "each once, and the driver's file";
        CloseHeldFiles(volume);
    }
    files.statuses.clear();
    for (const LONGLONG last : {0, -1, 1}) {
        for (auto& offset : volume->PreloadConfigLocation) offset = 1;
        volume->PreloadConfigLocation[15] = last;
        EXPECT_EQ(STATUS_SUCCESS, Arm());
        EXPECT_EQ(last > 0, gConfigFileHandle != nullptr) << "the configuration, where it is known";
    }
    // A protected volume whose changes the next boot would keep: its map ends here.
    files.statuses = cases[1].fails;
    UNICODE_STRING id = volume->VolumeName;
    ASSERT_EQ(STATUS_SUCCESS, AddProtectedVolume(&id, PV_PROTECTED, FALSE));
    for (const bool drops : {false, true}) {
        for (const bool isProtected : {false, true}) {
            CloseHeldFiles(volume);
            std::fill_n(At(0x1000 * S), S, 0x49);
            volume->SwapState = kSwapUsable;
            volume->IsProtected = isProtected;
            gProtectedVolumeList.load()->DropsAtNextBoot = drops;
            EXPECT_EQ(STATUS_SUCCESS, Arm());
            EXPECT_EQ(kSwapFilesNotHeld, volume->SwapState);
            const bool kept = isProtected && !drops;
            EXPECT_EQ(!kept, OnDisk(0x1000 * S, S) == Bytes(S, 0x49));
        }
    }
    volume->IsProtected = FALSE;
    CloseHeldFiles(volume);
    // A removal comes between: there is nothing left to hold, and no state to set.
    files.statuses = {{u"\\kvr.SWP", missing}};
    files.onOpen = [&](const std::u16string& path) {
        if (path == Numbered(1)) PoolPtr<MAP_LOCATION_ENTRY>(volume->MapLocation.exchange(nullptr)).Reset();
    };
    volume->SwapState = kSwapUsable;
    EXPECT_EQ(STATUS_SUCCESS, Arm());
    EXPECT_EQ(kSwapUsable, volume->SwapState);
    EXPECT_EQ(3u, files.opens.size());
}

// One read error, or a program that looks at a file in that moment, does not cost what the volume keeps.
// Without the stricter rules each file is tried once.
TEST_F(Provisioning, AFileThatIsNotHeldAtOnceIsTriedAgain) {
    constexpr NTSTATUS error = STATUS_IO_DEVICE_ERROR, busy = STATUS_SHARING_VIOLATION,
                       missing = STATUS_OBJECT_NAME_NOT_FOUND;
    constexpr ULONG bad = kSwapFilesNotHeld;
    const struct {
        std::u16string path;
        NTSTATUS status;
        int fails, tries;  // with the stricter rules
        ULONG hardened, otherwise;
    } cases[] = {{u"\\kvr.SWP", error, 1, 2, 0, bad},
                 {u"\\kvr.MAP", busy, 4, 5, 0, bad},
                 {u"\\kvr.SWP", error, 9, 5, bad, bad},
                 {u"\\kvr.MAP", missing, 9, 1, bad, bad},
                 {Numbered(3), error, 1, 2, 0, 0}};
    UNICODE_STRING id = volume->VolumeName;
    ASSERT_EQ(STATUS_SUCCESS, AddProtectedVolume(&id, PV_PROTECTED, FALSE));
    for (const bool hardened : {true, false}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(testing::Message() << &c - cases << (hardened ? ", hardened" : ""));
            gHardening = hardened;
            Locate({kRun});
            volume->SwapState = kSwapUsable;
            volume->IsProtected = TRUE;
            volume->MapDirty = TRUE;
            std::fill_n(At(0x1000 * S), S, 0x49);
            const auto began = std::chrono::steady_clock::now();
            int tries = 0;
            files.onOpen = [&](const std::u16string& path) {
                if (path == c.path) files.statuses[path] = ++tries <= c.fails ? c.status : STATUS_SUCCESS;
            };
            KVR_DISCARD(Arm(), "another file's");
            EXPECT_EQ(hardened ? c.tries : 1, tries);
            EXPECT_GE(std::chrono::steady_clock::now() - began, (tries - 1) * std::chrono::milliseconds(200));
            EXPECT_EQ(hardened ? c.hardened : c.otherwise, volume->SwapState);
            const bool retired = !hardened && c.otherwise == bad;
            // What was written before the writes were refused is saved.
            const bool saved = hardened && c.hardened == bad;
            EXPECT_EQ(!retired && !saved, OnDisk(0x1000 * S, S) == Bytes(S, 0x49)) << "the saved map";
            EXPECT_EQ(!saved, volume->MapDirty != FALSE);
            Bytes map = OnDisk(0x1000 * S, S);
            KVR_DISCARD(WriteSwapMap(volume->FilterDevice, TRUE), "always a success");
            EXPECT_EQ(retired || saved, OnDisk(0x1000 * S, S) == map);
            files.onOpen = nullptr;
            files.statuses.clear();
            CloseHeldFiles(volume);
        }
    }
    volume->IsProtected = FALSE;
    gHardening = FALSE;
}

}  // namespace
