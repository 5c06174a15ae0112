#include "swap/map_format.h"
#include <random>
#include "driver/record/hardening.h"
#include "redirect/segments.h"
#include "tests/support/loaded_driver.h"

namespace {

constexpr LONGLONG kMap = 2 << 20;

class MapFormat : public LoadedDriver {
protected:
    void SetUp() override {
        LoadedDriver::SetUp();
        Attach();
    }
    // The n-th allocation in it fails; 0: none does.
    void Save(ULONGLONG n = 0) {
        volume->MapDirty = TRUE;
        EXPECT_EQ(STATUS_SUCCESS, Starved(n, [&] { return WriteSwapMap(volume->FilterDevice, FALSE); }));
    }
    NTSTATUS Load(const void* run, ULONG length) KVR_NO_ANALYSIS {
        auto buffer =
            NewBuffer(length ? length : 1);  // exactly as long, so that a sanitizer sees a step past it
        std::memcpy(buffer.Get(), run, length);
        volume->MapBuffer = buffer.Get();
        volume->MapBufferSize = length;
        const NTSTATUS status = DeserializeSwapMap(volume->FilterDevice);
        volume->MapBuffer = nullptr;
        return status;
    }
    NTSTATUS LoadFromDisk(LONGLONG offset, ULONG length) { return Load(At(offset), length); }
    static SWAP_MAP_ENTRY Entry(ULONG volumeSector, ULONG swapSector, ULONG sectors) {
        SWAP_MAP_ENTRY entry{};
        entry.ulVolumeSector = volumeSector;
        entry.ulSwapSector = swapSector;
        entry.ulSectors = sectors;
        SealMapEntry(&entry);
        return entry;
    }
    NTSTATUS LoadEntries(const std::vector<SWAP_MAP_ENTRY>& entries) {
        return Load(entries.data(), entries.size() * sizeof(SWAP_MAP_ENTRY));
    }
    bool IsZero(LONGLONG offset, ULONG length) { return OnDisk(offset, length) == Bytes(length); }
    NTSTATUS Reload(ULONG length) {
        ForgetMaps();
        return LoadFromDisk(kMap, length);
    }
    // So many entries of one sector each.
    void RedirectMany(int count, int from = 0) {
        for (int i = from; i < count; ++i) Redirect(i * 4 * S, kSwap + i * S, S);
    }
};

TEST_F(MapFormat, AnEntryByteByByte) {
    Locate({{kMap / S, 4096}, {kMap / S + 100, 4096}});
    std::fill(At(kMap), At(kMap + 200 * S), 0xEE);
    Redirect(0x10000, 0x200000, 4096);
    AddFree(0x30000000, 512);
    Redirect(0x20000, 0x201000, 512, 1);
    EXPECT_EQ(STATUS_SUCCESS, WriteSwapMap(volume->FilterDevice, FALSE));
    EXPECT_FALSE(volume->MapDirty);
    const Bytes entry = {0x80, 0, 0, 0, 0, 0x10, 0, 0, 8, 0, 0, 0x32};
    EXPECT_EQ(entry, OnDisk(kMap, 12));
    const auto* others = reinterpret_cast<SWAP_MAP_ENTRY*>(At(kMap + 12));
    EXPECT_EQ(0x1008u, others[0].ulSwapSector) << "what lasts until the next boot is free then";
    EXPECT_EQ(0x180000u, others[1].ulSwapSector);
    EXPECT_EQ(kFreeSpaceMark, others[0].ulVolumeSector & others[1].ulVolumeSector);
    EXPECT_TRUE(IsZero(kMap + 36, 4096 - 36));
    EXPECT_TRUE(IsZero(kMap + 100 * S, 4096)) << "an all-zero run ends the map";
    EXPECT_TRUE(Said("map sectors written: 2") && Said("storage s2 + f1"));
    SWAP_MAP_ENTRY read;
    for (int byte = 0; byte < 12; ++byte) {  // no single changed byte passes
        std::memcpy(&read, entry.data(), 12);
        EXPECT_TRUE(VerifyMapEntry(&read));
        reinterpret_cast<UCHAR*>(&read)[byte] ^= 1;
        EXPECT_FALSE(VerifyMapEntry(&read));
        EXPECT_EQ(STATUS_INVALID_PARAMETER, Load(&read, 12));
    }
}

TEST_F(MapFormat, WhatIsSavedIsLoadedAcrossRuns) {
    std::mt19937 random(1);
    for (int i = 0; i < 60; ++i) {
        Redirect(i * 40 * S, kSwap + i * 8 * S, (1 + random() % 8) * S, i % 7 == 0);
        AddFree(kSwap + (1000 + i * 8) * S, (1 + random() % 8) * S);
    }
    const ULONG64 used = Used();
    const ULONG64 free = Free();
    Locate({{kMap / S, 512}, {kMap / S + 1, 1024}, {kMap / S + 9, 512}, {kMap / S + 20, 512}});
    Save();
    EXPECT_TRUE(Said("map sectors written: 3")) << "42 entries, then 78; the third run ends the map";
    EXPECT_FALSE(IsZero(kMap + S, 12)) << "a run is filled from its first byte on";
    EXPECT_EQ(STATUS_SUCCESS, Reload(512));
    EXPECT_EQ(STATUS_SUCCESS, LoadFromDisk(kMap + S, 1024));
    EXPECT_EQ(STATUS_END_OF_FILE, LoadFromDisk(kMap + 9 * S, 512));
    EXPECT_EQ(used + free, Used() + Free());
    EXPECT_LT(Used(), used);  // the redirections until the next boot have become free space
    EXPECT_EQ(0u, GetSwapRunLength(volume, 0));
    EXPECT_NE(0u, GetSwapRunLength(volume, 40 * S));
}

// Whatever an older map left in the runs behind, the new one ends where it ends.
TEST_F(MapFormat, AnOlderMapBehindTheNewOneIsNotReadAgain) {
    const MAP_LOCATION_ENTRY runs[] = {{kMap / S, 512}, {kMap / S + 1, 2048}, {kMap / S + 5, 512}};
    for (const int count : {0, 1, 41, 42, 43}) {
        for (const ULONGLONG fault : {0, 2}) {  // none, or no memory for the second run
            SCOPED_TRACE(count * 10 + fault);
            for (int i = 0; i < 8 * 42; ++i) {
                const SWAP_MAP_ENTRY stale = Entry(9000 + i, 20000 + i, 1);
                std::memcpy(At(kMap + i / 42 * S + i % 42 * 12), &stale, 12);
            }
            ForgetMaps();
            RedirectMany(count);
            Locate({runs[0], runs[1], runs[2]});
            Save(fault);
            const NTSTATUS first = Reload(512);
            EXPECT_EQ(count == 0 ? STATUS_END_OF_FILE : STATUS_SUCCESS, first);
            if (first == STATUS_SUCCESS && LoadFromDisk(kMap + S, 2048) == STATUS_SUCCESS) {
                EXPECT_EQ(STATUS_END_OF_FILE, LoadFromDisk(kMap + 5 * S, 512));
            }
            EXPECT_EQ((fault ? std::min(count, 42) : count) * S, Used());
            EXPECT_EQ(0u, GetSwapRunLength(volume, 9000 * S));
        }
    }
}

TEST_F(MapFormat, WithoutMemoryTheSaveIsMadeUpForLater) {
    RedirectMany(50);
    const MAP_LOCATION_ENTRY first = {kMap / S, 512}, second = {kMap / S + 1, 1280};
    for (const ULONGLONG n : {1, 2, 3}) {
        std::fill(At(kMap), At(kMap + 4 * S), 0xEE);
        Locate({first, second});
        device->TakeTransfers();
        Save(n);
        // Without a buffer nothing is written; without the second one the second run is zeroed, in pieces.
        EXPECT_EQ(n == 1 ? 0 : n == 2 ? 4 : 2, static_cast<int>(device->TakeTransfers().size()));
        EXPECT_EQ(n == 2, IsZero(kMap + S, 1280));
        EXPECT_EQ(n == 2, volume->MapDirty != FALSE);
    }
    for (const bool hardening :
         {false, true}) {  // where the first buffer is missing, the stricter rules try again
        gHardening = hardening;
        DiscardSwappedChunks(volume);
        device->TakeTransfers();
        Save(1);
        EXPECT_TRUE(device->TakeTransfers().empty());
        EXPECT_EQ(hardening, volume->MapDirty != FALSE);
    }
    gHardening = FALSE;
    device->verdict = [](const FilteredStack::Transfer& t) {
        return t.offset == kMap + S ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS;
    };
    Save(2);  // ends, though the zeroing fails
    Locate({first, {0, 512}});
    Save(2);
    EXPECT_FALSE(IsZero(0, 0) && volume->MapDirty) << "a run that no map may lie in is not touched";
}

// Each step of a save fails once. What is on the disk then is the old map, the new one or, where one write per
// run is the rule, what the writes left; under the stricter rules it is never a third one. The next occasion
// saves, though nothing changed since.
TEST_F(MapFormat, ASaveThatFailedIsReportedAndRepeated) {
    std::string steps;
    std::size_t failing = 0;
    const auto step = [&](char name) {
        steps += name;
        return steps.size() == failing ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS;
    };
    device->onFlush = [&] { return step('F'); };
    device->verdict = [&](const FilteredStack::Transfer& t) {
        if (!t.isWrite) return STATUS_SUCCESS;
        return step(t.offset >= kMap + 2 * S ? 'z' : t.offset == kMap ? (t.length == S ? 's' : 'r') : 'b');
    };
    // 's': the first sector alone, 'r' the first run, 'b' what is behind its first sector, 'z' the run of
    // zeros.
    for (const auto& [hardening, wanted] : {std::pair{FALSE, "FFrzF"}, {TRUE, "FsFbzFsF"}}) {
        gHardening = hardening;
        for (failing = 1; failing <= std::strlen(wanted) + 1; ++failing) {
            SCOPED_TRACE(wanted + std::to_string(failing));
            ForgetMaps();
            Locate({{kMap / S, 2 * S}, {kMap / S + 4, S}});
            RedirectMany(1);
            steps.assign(20, ' ');
            Save();
            ASSERT_FALSE(volume->MapDirty);
            RedirectMany(60, 1);
            const SIZE_T reports = TimesSaid(mark, "is not saved, 0xc0000185: to be tried again");
            steps.clear();
            Save();
            const bool fails = failing <= std::strlen(wanted);
            EXPECT_EQ(fails, volume->MapDirty != FALSE);
            EXPECT_EQ(fails, TimesSaid(mark, "is not saved, 0xc0000185: to be tried again") - reports);
            EXPECT_EQ(fails && hardening ? std::string(wanted, failing) : wanted, steps);
            const Bytes left = OnDisk(kMap, 8 * S);
            EXPECT_EQ(STATUS_SUCCESS, WriteSwapMap(volume->FilterDevice, FALSE));
            EXPECT_FALSE(volume->MapDirty);
            EXPECT_EQ(STATUS_SUCCESS, Reload(2 * S));
            EXPECT_EQ(60 * S, Used());
            std::ranges::copy(left, At(kMap));  // had the power failed before that
            if (Reload(2 * S) == STATUS_SUCCESS) {
                EXPECT_TRUE(Used() == S || Used() == 60 * S) << Used();
            }
        }
    }
    gHardening = FALSE;
}

TEST_F(MapFormat, ARetiredMapIsFoundDamagedAsSoonAsTheDiskTakesIt) {
    RedirectMany(60);
    Locate({{kMap / S, 2 * S}});
    Save();
    volume->SwapState = kSwapFilesNotHeld;
    for (const bool takes : {false, true}) {
        device->verdict = [&](const FilteredStack::Transfer& t) {
            return t.isWrite && !takes ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS;
        };
        takes ? KVR_DISCARD(WriteSwapMap(volume->FilterDevice, FALSE), "always a success")
              : RetireSavedMap(volume);
        EXPECT_EQ(!takes, volume->MapRetireDue != FALSE);
        EXPECT_EQ(takes ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS, Reload(2 * S));
    }
    device->TakeTransfers();
    KVR_DISCARD(WriteSwapMap(volume->FilterDevice, TRUE), "always a success");
    EXPECT_TRUE(device->TakeTransfers().empty()) << "once is enough";
    device->verdict = nullptr;
    volume->SwapState = kSwapUsable;
    device->onFlush = [&] {  // it is retired while a save waits for the device
        if (volume->SwapState.exchange(kSwapFilesNotHeld) == kSwapUsable) RetireSavedMap(volume);
        return STATUS_SUCCESS;
    };
    Save();
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Reload(2 * S));
    device->onFlush = nullptr;
    ForgetMapLocation(volume);
    RetireSavedMap(volume);
    EXPECT_FALSE(volume->MapRetireDue) << "there is no map";
}

TEST_F(MapFormat, LocationsThatCannotHoldAMapAreNotFollowed) {
    RedirectMany(50);
    const Bytes before = device->data;
    for (const auto& runs : std::vector<std::vector<MAP_LOCATION_ENTRY>>{
             {{0, 4096}}, {{kMap / S, 0}}, {{kMap / S, 11}}, {{kMap / S, 0xFFFFFE00}}}) {
        Locate(runs);
        host::SetPoolLimit(64 << 20);
        Save();
        host::SetPoolLimit(host::kNoPoolLimit);
        if (!IsUsableRun(&runs[0])) RetireSavedMap(volume);
        EXPECT_TRUE(device->data == before);
    }
    // More entries than slots: the map is cut, and a sector-0 run behind it is left alone.
    Locate({{kMap / S, 512}, {0, 512}});
    Save();
    EXPECT_EQ(Bytes(before.begin(), before.begin() + S), OnDisk(0, S));
    Locate({{kMap / S, 512}, {kMap / S + 1, 512}});
    {
        FastMutexLock lock(volume->SwapLock);
        volume->ulMapLocationLength = 15;  // the second run is none
    }
    Save();
    EXPECT_EQ(Bytes(before.begin() + kMap + S, before.begin() + kMap + 2 * S), OnDisk(kMap + S, S));
    EXPECT_EQ(STATUS_SUCCESS, Reload(512));
    EXPECT_EQ(42 * S, Used());
    Locate({{kMap / S, 24}});  // room for exactly two
    Save();
    EXPECT_EQ(STATUS_SUCCESS, Reload(24));
    EXPECT_EQ(2 * S, Used());
    // Under the stricter rules a map that lacks redirections is none.
    gHardening = TRUE;
    RedirectMany(50, 2);
    Locate({{kMap / S, 512}});
    device->TakeTransfers();
    Save();
    gHardening = FALSE;
    for (const auto& t : device->TakeTransfers()) EXPECT_NE(0u, t.length);
    EXPECT_TRUE(volume->MapDirty && Reload(512) == STATUS_INVALID_PARAMETER);
}

TEST_F(MapFormat, SavedWhenThereIsSomethingToSaveAndSomewhere) {
    RedirectMany(1);
    const MAP_LOCATION_ENTRY run = {kMap / S, 512};
    SWAP_FILE* swapFile = volume->SwapFile;
    const struct {
        bool dirty, located, attached, allocating, force;
        ULONG state, unit;
        bool tried, saved;
    } cases[] = {
        {true, true, true, false, false, 0, S, true, true},
        {true, true, false, true, false, 0, S, true, true},
        {true, true, false, false, true, 0, S, true, true},
        {true, true, false, false, false, 0, S, false, false},
        {true, false, false, false, true, 0, S, false, false},
        {true, false, true, false, false, 0, S, true, false},
        {false, true, true, false, true, 0, S, true, false},
        {true, true, true, true, true, 3, S, false, false},
        {true, true, true, true, true, 5, S, false, false},
        {true, true, true, false, false, 0, 0, true, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        ForgetMapLocation(volume);
        if (c.located) Locate({run});
        volume->SwapFile = c.attached ? swapFile : nullptr;
        volume->SwapAllocating = c.allocating;
        volume->SwapState = c.state;
        volume->BytesPerSector = c.unit;
        volume->MapDirty = c.dirty;
        device->TakeTransfers();
        const SIZE_T tried = TimesSaid(mark, "Kvr!WriteSwapMap: Saved");
        EXPECT_EQ(STATUS_SUCCESS, WriteSwapMap(volume->FilterDevice, c.force));
        EXPECT_EQ(c.tried, TimesSaid(mark, "Kvr!WriteSwapMap: Saved") - tried);
        EXPECT_EQ(c.saved, device->TakeTransfers().size());
        EXPECT_EQ(c.dirty && !c.saved, volume->MapDirty != FALSE);
        volume->BytesPerSector = S;
    }
    volume->SwapFile = swapFile;
    FastMutexLock lock(volume->SwapLock);
    volume->ulMapLocationLength = 7;  // no whole run
    volume->MapDirty = TRUE;
    volume->SwapState = kSwapUsable;
    ExReleaseFastMutex(&volume->SwapLock);
    WriteSwapMap(volume->FilterDevice, TRUE);
    ExAcquireFastMutex(&volume->SwapLock);
    EXPECT_TRUE(volume->MapDirty);
}

// Places that an entry cannot name are left out: cut, they would be other places. A redirection of such a place
// ends with the boot.
TEST_F(MapFormat, PlacesBeyondAnEntryAreLeftOut) {
    const LONGLONG last = 0xFFFFFFFFll * S;
    Locate({{kMap / S, 512}});
    Redirect(last - S, 100 * S, S);
    Redirect(last, 110 * S, S);
    Redirect(last + S, 120 * S, S);
    Redirect(0, last, S);
    Redirect(S, last + S, S);
    Redirect(2 * S, last + 3 * S, S, 1);
    AddFree(last + 2 * S, S);
    AddFree(130 * S, S);
    Save();
    EXPECT_EQ(STATUS_SUCCESS, Reload(512));
    EXPECT_EQ((std::vector<Piece>{{0, last, S}, {last - S, 100 * S, S}}), Swapped());
    EXPECT_EQ((FreeList{{110 * S, S}, {120 * S, S}, {130 * S, S}}), FreeSpace());
}

TEST_F(MapFormat, TheReaderTrustsNothing) {
    const ULONG at = kSwap / S;
    constexpr ULONG most = 0x7FFFFF;  // sectors below 4 GiB
    const struct {
        SWAP_MAP_ENTRY entry;
        bool good;
    } cases[] = {
        {Entry(100, at + 50, 1), true},
        {Entry(100, at + 50, 0), false},
        {Entry(100, at + 50, most), true},
        {Entry(100, at + 50, most + 1), false},
        {Entry(8, at + 50, 1), false},
        {Entry(9, at + 50, 1), true},
        {Entry(3, at + 50, 3), false},
        {Entry(3, at + 50, 2), true},
        {Entry(kFreeSpaceMark, at + 50, 1), true},
        {Entry(kFreeSpaceMark, at + 50, 0), false},
        {Entry(kFreeSpaceMark, at + 20, 4), false},
        {Entry(kFreeSpaceMark - 1, at + 50, 1), true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        ForgetMaps();
        EXPECT_EQ(c.good ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER,
                  LoadEntries({Entry(5, at, 4), Entry(kFreeSpaceMark, at + 20, 2), c.entry}));
        EXPECT_EQ(
            4 * S + (c.good && c.entry.ulVolumeSector != kFreeSpaceMark ? c.entry.ulSectors * ULONG64{S} : 0),
            Used());
    }
    ForgetMaps();
    volume->BytesPerSector = 0;
    EXPECT_EQ(STATUS_INVALID_PARAMETER, LoadEntries({Entry(5, at, 4)}));
    volume->BytesPerSector = 0xFFFFFE00;  // 2^63 bytes and more
    EXPECT_EQ(STATUS_INVALID_PARAMETER, LoadEntries({Entry(0xFFFFFFF0, 1, 1)}));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, LoadEntries({Entry(1, 0xFFFFFFF0, 1)}));
    volume->BytesPerSector = S;
    const Bytes bytes(11, 0xFF);
    for (ULONG length = 0; length < 12; ++length) EXPECT_EQ(STATUS_END_OF_FILE, Load(bytes.data(), length));
    EXPECT_EQ(STATUS_END_OF_FILE, LoadEntries({Entry(7, 7, 1), Entry(9, 0, 1)}));  // empty slots
}

}  // namespace
