// The saved map at boot: where it lies, what is loaded from it, and what the boot action makes of it.
#include "swap/map_boot.h"
#include <algorithm>
#include <numeric>
#include <random>
#include <set>
#include "driver/record/hardening.h"
#include "swap/map_format.h"
#include "tests/support/loaded_driver.h"

namespace {

constexpr LONGLONG kMap = 2 << 20;
constexpr ULONG kMapBytes = 8192;  // two runs
constexpr ULONG64 kMergeLimit = 0x3300000;
constexpr ULONG kUsed = 8 * S;

class MapBoot : public LoadedDriver {
protected:
    void SetUp() override {
        LoadedDriver::SetUp();
        gTesselEnabled = TRUE;
        gConfigLoaded = TRUE;
        m_before = Data(kUsed, 9);
        m_data = Data(kUsed, 1);
    }
    void SetLocation(const std::vector<MAP_LOCATION_ENTRY>& runs) {
        ASSERT_EQ(STATUS_SUCCESS, RegSetMapLocation(volume, runs.data(), runs.size() * 8));
    }
    // What a former boot left: sectors 100 to 107 redirected, and so much free space.
    void SaveMap(ULONG64 freeBytes = 60 << 20) {
        ForgetMapLocation(volume);
        Rearm();
        std::fill(At(kMap), At(kMap + kMapBytes), 0);
        std::ranges::copy(m_before, At(100 * S));
        std::ranges::copy(m_data, At(kSwap));
        Redirect(100 * S, kSwap, kUsed);
        AddFree(kSwap + kUsed, 24 * S);
        for (ULONG64 done = 24 * S; done < freeBytes; done += std::min<ULONG64>(freeBytes - done, 1 << 20))
            AddFree((1ll << 30) + static_cast<LONGLONG>(done),
                    static_cast<ULONG>(std::min<ULONG64>(freeBytes - done, 1 << 20)));
        SetLocation({{kMap / S, 4096}, {kMap / S + 8, 4096}});
        Locate({{kMap / S, 4096}, {kMap / S + 8, 4096}});
        WriteSwapMap(volume->FilterDevice, TRUE);
        ForgetMapLocation(volume);
        ForgetMaps();
    }
    // Whether the map on the disk still holds a redirection.
    bool MapHoldsRedirection() {
        for (ULONG i = 0; i < kMapBytes / 12; ++i) {
            const auto* entry = reinterpret_cast<SWAP_MAP_ENTRY*>(At(kMap)) + i;
            if (entry->ulSwapSector != 0 && entry->ulVolumeSector != kFreeSpaceMark) return true;
        }
        return false;
    }
    // As at the start of a boot, with a protected volume.
    void Rearm() {
        ForgetMaps();
        volume->SwapMapLoaded = FALSE;
        volume->MapReadFailed = FALSE;
        volume->SwapState = kSwapUsable;
        volume->IsProtected = TRUE;
        volume->BootAction = 0;
    }
    SIZE_T Loads() const { return TimesSaid(mark, "Kvr!PreloadSwapMap: Done"); }

    Bytes m_data, m_before;
};

TEST_F(MapBoot, LocationIsStoredSortedAndReadBack) {
    PostloadSwapMap(volume);
    EXPECT_TRUE(registry.values.empty()) << "no run was captured";
    for (LONGLONG sector : {300, 100, 200}) AddSwapMapChunk(volume, sector * S, 4096);
    PostloadSwapMap(volume);
    EXPECT_TRUE(registry.flushed);
    const std::vector<ULONG> words = {100, 4096, 200, 4096, 300, 4096};
    ASSERT_EQ(24u, registry.values[kName].data.size());
    EXPECT_EQ(0, std::memcmp(registry.values[kName].data.data(), words.data(), 24));
    EXPECT_EQ(0, std::memcmp(volume->MapLocation, words.data(), 24));
    EXPECT_TRUE(Said("ulCountItems=3") && Said("pTessel->ulMapLocationLength=24"));
    const MAP_LOCATION_ENTRY run = {1, 4096};
    const UNICODE_STRING name = std::exchange(volume->VolumeName, {});
    MAP_LOCATION_ENTRY* location = volume->MapLocation;
    ULONG length = 99;
    EXPECT_EQ(STATUS_INVALID_PARAMETER, RegSetMapLocation(volume, &run, 8));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, RegGetMapLocation(volume, &location, &length));
    EXPECT_TRUE(!location && length == 0);
    EXPECT_EQ(STATUS_INVALID_PARAMETER, RegDelMapLocation(volume));
    volume->VolumeName = name;
    EXPECT_EQ(STATUS_INVALID_PARAMETER, RegSetMapLocation(volume, nullptr, 8));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, RegSetMapLocation(volume, &run, 0));
    EXPECT_EQ(1u, registry.values.size());
    EXPECT_EQ(STATUS_SUCCESS, RegDelMapLocation(volume));
    EXPECT_TRUE(registry.flushed) << "a location must not outlive its file";
    EXPECT_FALSE(NT_SUCCESS(RegDelMapLocation(volume)));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, RegGetMapLocation(volume, &location, &length));
}

// What becomes of the redirections, and of the protection.
TEST_F(MapBoot, BootActionsAndStates) {
    enum Fate { Kept, GivenUp, Merged, Left };  // Left: in the trees, not saved and not given up
    constexpr ULONG64 much = kMergeLimit + S;
    constexpr ULONG bad = kSwapMapBad, held = kSwapFilesNotHeld, discard = PV_ACTION_DISCARD,
                    merge = PV_ACTION_MERGE;
    const struct {
        const char* what;
        ULONG state, action;
        bool enabled, isProtected, listed;
        ULONG64 free;
        Fate fate;
        bool endsProtected;
    } cases[] = {
        {"keep", 0, 0, true, true, false, much, Kept, true},
        {"discard", 0, discard, true, true, false, much, GivenUp, true},
        {"switched off", 0, 0, false, true, false, much, GivenUp, true},
        {"not protected", 0, 0, true, false, false, much, GivenUp, false},
        {"merge", 0, merge, true, true, false, much, Merged, true},
        {"merge at the limit", 0, merge, true, true, false, kMergeLimit, Kept, true},
        {"merge, switched off", 0, merge, false, true, false, much, GivenUp, true},
        {"merge, not protected", 0, merge, true, false, false, much, GivenUp, false},
        {"files not held", held, 0, true, true, false, much, Left, true},
        {"files not held, discard", held, discard, true, true, false, much, Left, true},
        {"files not held, merge", held, merge, true, true, false, much, Left, true},
        {"bad before", bad, merge, true, true, false, much, Left, false},
        {"another state", kSwapNoLocation, 0, true, true, false, much, Left, false},
        {"files not held, listed", held, 0, true, false, true, much, Left, false},
        {"listed", 0, 0, true, false, true, much, Kept, true},  // last: the list stays
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        gTesselEnabled = TRUE;
        SaveMap(c.free);
        gTesselEnabled = c.enabled;
        volume->SwapState = c.state;
        volume->BootAction = c.action;
        volume->IsProtected = c.isProtected;
        volume->MapDirty = FALSE;
        if (c.listed) List(kName, PV_PROTECTED);
        EnsureSwapMapLoaded(volume);
        const bool stays = c.fate == Kept || c.fate == Left;
        EXPECT_EQ(c.state, volume->SwapState);
        EXPECT_EQ(c.endsProtected, volume->IsProtected != FALSE);
        EXPECT_EQ(stays ? kUsed : 0, Used());
        EXPECT_EQ(c.free + (stays ? 0 : kUsed), Free());
        EXPECT_EQ(stays, MapHoldsRedirection());
        EXPECT_EQ(c.fate == Merged ? m_data : m_before, OnDisk(100 * S, kUsed));
        EXPECT_TRUE(registry.values.contains(kName));
        if (c.fate == GivenUp) {
            EXPECT_EQ(kUsed + 24 * S, FreeSpace().front().second) << "in one piece again";
        }
        EXPECT_EQ("", support::CheckMaps(volume));
    }
    volume->IsProtected = FALSE;
}

// So many that they are given up in the order of the swap, written in another; also while one allocation of the
// boot fails.
TEST_F(MapBoot, ManyRedirectionsAreGivenUpWhole) {
    constexpr ULONG kMany = 300;
    std::vector<LONGLONG> order(kMany);
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::mt19937(5));
    for (ULONGLONG n = 0; n < 1400; n = n == 0 ? 590 : n + 1) {
        SCOPED_TRACE(n);
        SaveMap(0);
        ForgetMaps();
        for (ULONG i = 0; i < kMany; ++i) Redirect((1000 + 2 * i) * S, kSwap + order[i] * S, S);
        Locate({{kMap / S, 4096}, {kMap / S + 8, 4096}});
        WriteSwapMap(volume->FilterDevice, TRUE);
        ForgetMapLocation(volume);
        Rearm();
        volume->BootAction = PV_ACTION_DISCARD;
        KVR_DISCARD(Starved(n, [&] { return PreloadSwapMap(volume->FilterDevice); }), "looked at by its trees");
        if (n == 0) {
            EXPECT_EQ(FreeSpace(), (FreeList{{kSwap, kMany * S}}));
        }
        EXPECT_EQ("", support::CheckMaps(volume));
        EXPECT_EQ(0u, Used());
        EXPECT_TRUE(volume->SwapState == kSwapMapBad || Free() >= (kMany - 1) * S) << Free();
    }
}

TEST_F(MapBoot, LoadedOnceByTheFirstWhoNeedsIt) {
    const std::function<void(bool)> obstacles[] = {
        [](bool on) { gConfigLoaded = !on; },
        [&](bool on) { volume->SwapAllocating = on; },
        [&](bool on) { volume->SwapMapLoaded = on; },
        [&](bool on) { volume->MediaType = on ? RemovableMedia : FixedMedia; },
        [&](bool on) KVR_NO_ANALYSIS { volume->MapLoading = on; },
    };
    SaveMap();
    for (const auto& obstacle : obstacles) {
        obstacle(true);
        EnsureSwapMapLoaded(volume);
        EXPECT_EQ(0u, Loads()) << &obstacle - obstacles;
        obstacle(false);
    }
    std::thread other;
    device->verdict = [&](const auto&) {
        EnsureSwapMapLoaded(volume);  // a read that the load itself makes
        if (other.joinable()) return STATUS_SUCCESS;
        other = std::thread([&] { EnsureSwapMapLoaded(volume); });  // waits for the end of the load
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return STATUS_SUCCESS;
    };
    for (int i = 0; i < 2; ++i) EnsureSwapMapLoaded(volume);
    other.join();
    device->verdict = nullptr;
    EXPECT_EQ(1u, Loads());
    EXPECT_TRUE(Said("PreloadSwapMap: storage s1 + f61"));
    volume->SwapMapLoaded = FALSE;
    ForgetMaps();
    EnsureSwapMapLoaded(volume);
    EXPECT_EQ(2u, Loads()) << "the first load has ended";
}

TEST_F(MapBoot, WithoutALocationAProtectedVolumeIsLetGo) {
    for (const bool isProtected : {true, false}) {
        for (const ULONG bytes : {0, 1, 7}) {
            volume->SwapMapLoaded = FALSE;
            volume->SwapState = kSwapUsable;
            volume->IsProtected = isProtected;
            if (bytes != 0) registry.values[kName] = {REG_BINARY, Bytes(bytes, 0xFF)};
            EnsureSwapMapLoaded(volume);
            EXPECT_EQ(isProtected ? kSwapNoLocation : kSwapUsable, volume->SwapState);
            EXPECT_FALSE(volume->IsProtected);
            EXPECT_EQ(nullptr, volume->MapLocation);
        }
        registry.values.clear();
    }
}

TEST_F(MapBoot, AMapWithAnyErrorIsDroppedWholeAndNeverSaved) {
    SaveMap();
    const Bytes good = OnDisk(kMap, kMapBytes);
    auto* entries = reinterpret_cast<SWAP_MAP_ENTRY*>(At(kMap));
    const std::function<void()> damages[] = {
        [&] { *At(kMap + 12) ^= 1; },
        // Two free ranges that overlap, and a free range over a redirected one, each entry sound in itself.
        [&] { ++entries[2].ulSectors; },
        [&] { entries[1].ulSwapSector = entries[0].ulSwapSector + 1; },
        [&] {
            SetLocation({{kMap / S, 4096}, {0, 4096}});
        },
        [&] {
            SetLocation({{0, 4096}});
        },
    };
    for (const auto& damage : damages) {
        SCOPED_TRACE(&damage - damages);
        std::ranges::copy(good, At(kMap));
        Rearm();
        ForgetMapLocation(volume);
        damage();
        for (int i = 1; i <= 2 && &damage != damages; ++i) SealMapEntry(&entries[i]);
        const Bytes map = OnDisk(kMap, kMapBytes);
        EnsureSwapMapLoaded(volume);
        EXPECT_EQ(kSwapMapBad, volume->SwapState);
        EXPECT_FALSE(volume->IsProtected);
        EXPECT_EQ(0u, Used() + Free());
        volume->MapDirty = TRUE;
        WriteSwapMap(volume->FilterDevice, TRUE);
        EXPECT_EQ(map, OnDisk(kMap, kMapBytes));
    }
    EXPECT_EQ(5u, TimesSaid(mark, "Kvr!PreloadSwapMap: storage contains errors!"));
    EXPECT_EQ(5u, TimesSaid(mark, "Kvr!PreloadSwapMap: storage s0 + f0"));
}

// Spaces all over the 32 bits of a sector number, many of them touching: sound until one is a sector too long.
TEST_F(MapBoot, SpacesThatOverlapAreFoundWhateverTheirOrder) {
    std::mt19937 random(3);
    std::set<ULONG> starts;
    for (int byte = 0; byte < 4; ++byte)
        for (ULONG i = 0; i < 64; ++i) starts.insert(0x10203040 + (i << (8 * byte)) * 3);
    std::vector<ULONG> order(starts.begin(), starts.end());
    std::shuffle(order.begin(), order.end(), random);
    SetLocation({{kMap / S, 4096}});
    for (std::size_t longer = 0; longer < order.size(); longer += 5) {  // the first round is sound
        std::fill(At(kMap), At(kMap + kMapBytes), 0);
        auto* entry = reinterpret_cast<SWAP_MAP_ENTRY*>(At(kMap));
        bool sound = true;
        for (std::size_t i = 0; i < order.size(); ++i, ++entry) {
            const auto next = starts.upper_bound(order[i]);
            const ULONG room = next == starts.end() ? 8 : *next - order[i];
            const bool overlaps = longer != 0 && i == longer && room < 0x10000 && next != starts.end();
            entry->ulVolumeSector = i % 3 == 0 ? kFreeSpaceMark : static_cast<ULONG>(i) << 24;
            entry->ulSwapSector = order[i];
            entry->ulSectors = overlaps ? room + 1 : std::min<ULONG>(room, 8);
            SealMapEntry(entry);
            if (overlaps) sound = false;
        }
        Rearm();
        EnsureSwapMapLoaded(volume);
        ASSERT_EQ(sound ? kSwapUsable : kSwapMapBad, volume->SwapState) << longer;
    }
}

TEST_F(MapBoot, ARunThatCannotBeReadIsSkippedAndAnEmptyOneEndsTheMap) {
    SaveMap();
    const MAP_LOCATION_ENTRY unreadable = {kMap / S + 1000, 4096}, first = {kMap / S, 4096};
    device->verdict = [](const FilteredStack::Transfer& transfer) {
        return !transfer.isWrite && transfer.offset == kMap + 1000 * S ? STATUS_IO_DEVICE_ERROR
                                                                       : STATUS_SUCCESS;
    };
    const struct {
        std::vector<MAP_LOCATION_ENTRY> runs;
        bool loaded;
        NTSTATUS status;
    } cases[] = {{{unreadable, {kMap / S, 0xFFFFFFF0}, first}, true, STATUS_SUCCESS},
                 {{first, unreadable}, true, STATUS_IO_DEVICE_ERROR},
                 {{first, {kMap / S, 0xFFFFFFF0}}, true, STATUS_INSUFFICIENT_RESOURCES},
                 {{first, {kMap / S + 8, 11}, {0, 4096}}, true, STATUS_SUCCESS},
                 {{{kMap / S, 12}}, true, STATUS_SUCCESS},
                 {{{kMap / S, 11}, first}, false, STATUS_SUCCESS}};
    for (const auto& c : cases) {
        Rearm();
        SetLocation(c.runs);
        host::SetPoolLimit(64 << 20);
        EXPECT_EQ(c.status, PreloadSwapMap(volume->FilterDevice));
        host::SetPoolLimit(host::kNoPoolLimit);
        EXPECT_EQ(c.loaded ? kUsed : 0, Used());
        EXPECT_EQ(kSwapUsable, volume->SwapState);
        // What could not be read today may be read tomorrow: no save takes it away.
        if (&c - cases > 2) continue;
        volume->MapDirty = TRUE;
        device->TakeTransfers();
        WriteSwapMap(volume->FilterDevice, TRUE);
        EXPECT_TRUE(device->TakeTransfers().empty());
        EXPECT_TRUE(LastSaid().ends_with("Saved") && Said("cannot be read, 0x"));
    }
}

// A volume that is locked when it is first read: under the stricter rules nothing is decided before its whole
// map was read.
TEST_F(MapBoot, AnUnreadMapIsReadAgainAndNothingIsDecidedMeanwhile) {
    gHardening = TRUE;
    SaveMap();
    SetLocation({{kMap / S, 4096}, {kMap / S + 8, 4096}});
    int locked = 3;
    device->verdict = [&](const FilteredStack::Transfer& transfer) {
        return transfer.offset == kMap + (locked % 2) * 8 * S && locked-- > 0 ? STATUS_IO_DEVICE_ERROR
                                                                              : STATUS_SUCCESS;
    };
    for (const bool readable : {false, false, false, true}) {
        EnsureSwapMapLoaded(volume);
        EXPECT_EQ(readable, volume->SwapMapLoaded != FALSE);
        EXPECT_EQ(readable ? kUsed : 0, Used());
        EXPECT_EQ(readable, Free() != 0);
        EXPECT_EQ(readable, volume->MapLocation != nullptr);
        EXPECT_TRUE(volume->IsProtected && volume->SwapState == kSwapUsable);
    }
    EXPECT_EQ(1u, Loads());
    gHardening = FALSE;
}

// What memory is short for is missing, and said; the rest is sound, and nothing is merged in half.
TEST_F(MapBoot, ShortMemoryLeavesASoundVolume) {
    ULONG whole = 0, bad = 0;
    for (ULONGLONG n = 1; n < 400 && whole == 0; ++n) {
        SCOPED_TRACE(n);
        SaveMap(kMergeLimit + (2 << 20));
        volume->BootAction = PV_ACTION_MERGE;
        const Bytes map = OnDisk(kMap, kMapBytes);
        host::FailCall(host::FaultBit(host::Fault::Allocate), n);
        EnsureSwapMapLoaded(volume);
        host::DisarmFaults();
        EXPECT_EQ("", support::CheckMaps(volume));
        EXPECT_TRUE(OnDisk(100 * S, kUsed) == m_data || OnDisk(100 * S, kUsed) == m_before);
        if (host::FaultsInjected() == 0) ++whole;
        if (volume->SwapState != kSwapMapBad) continue;
        ++bad;
        EXPECT_EQ(bad, TimesSaid(mark, "Kvr!DeserializeSwapMap ["))
            << "only what could not be stored is missing";
        EXPECT_FALSE(volume->IsProtected);
        EXPECT_EQ(map, OnDisk(kMap, kMapBytes)) << "the next boot may find it whole";
    }
    EXPECT_EQ(1u, whole);
    EXPECT_GE(bad, 5u);
    std::multiset<std::string> said;
    for (const std::string& line : host::DebugLinesSince(mark))
        if (line.starts_with("Kvr!DeserializeSwapMap [")) said.insert(line.substr(line.find(']') + 2));
    for (const char* status : {"STATUS_INSUFFICIENT_RESOURCES", "STATUS_UNSUCCESSFUL"})
        EXPECT_GE(said.count(status), 2u) << "a redirection's and free space's";
}

// The merged data is on stable storage before the map drops its redirections, and the map before their space is
// used again.
TEST_F(MapBoot, MergedDataIsFlushedBeforeTheMapDropsItsRedirections) {
    for (const bool hardening : {false, true}) {
        for (const bool flushes : {true, false}) {
            SaveMap();
            gHardening = hardening;
            volume->BootAction = PV_ACTION_MERGE;
            bool first = true, flushedLast = false;
            device->verdict = [&](const auto& t) {
                return flushedLast = flushedLast && !t.isWrite, STATUS_SUCCESS;
            };
            device->onFlush = [&] {
                if (std::exchange(first, false)) {
                    EXPECT_TRUE(Holds(100 * S, m_data) && MapHoldsRedirection());
                }
                flushedLast = true;
                return flushes ? STATUS_SUCCESS : STATUS_IO_DEVICE_ERROR;
            };
            EnsureSwapMapLoaded(volume);
            device->verdict = nullptr;
            device->onFlush = nullptr;
            gHardening = FALSE;
            EXPECT_TRUE(flushedLast);
            EXPECT_EQ(m_data, OnDisk(100 * S, kUsed));
            EXPECT_EQ(hardening && !flushes ? kUsed : 0, Used()) << "what may be lost stays redirected";
        }
    }
}

// Redirected writes to a place of the storage, or of the map: under the stricter rules they are not copied
// there.
TEST_F(MapBoot, AMergeOverTheStorageItselfIsNotMade) {
    constexpr LONGLONG end = kSwap + kUsed + 24 * S;  // of the storage's low part
    const struct {
        LONGLONG place;
        bool isStorage;
    } table[] = {{kSwap - kUsed, false}, {kSwap - kUsed + S, true}, {end - S, true},
                 {end, false},           {kMap - kUsed, false},     {kMap + kMapBytes - S, true}};
    for (const bool hardening : {false, true}) {
        for (const auto& row : table) {
            SaveMap();
            gHardening = hardening;
            volume->BootAction = PV_ACTION_MERGE;
            if (!row.isStorage) std::fill(At(row.place), At(row.place + kUsed), 0);
            auto* entry = reinterpret_cast<SWAP_MAP_ENTRY*>(At(kMap));
            entry->ulVolumeSector = static_cast<ULONG>(row.place / S);
            SealMapEntry(entry);
            const Bytes before = OnDisk(row.place, kUsed);
            EnsureSwapMapLoaded(volume);
            gHardening = FALSE;
            const bool kept = hardening && row.isStorage;
            EXPECT_EQ(kept ? kUsed : 0, Used()) << row.place;
            EXPECT_EQ(kept, OnDisk(row.place, kUsed) == before) << row.place;
        }
    }
}

}  // namespace
