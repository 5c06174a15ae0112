#include "config/parser.h"
#include "config/protected_volumes.h"
#include "config/storage.h"
#include "swap/map_boot.h"
#include "swap/map_format.h"
#include "tests/support/memory_registry.h"
#include "tests/swap/swap_volume.h"

namespace support {
namespace {

constexpr LONGLONG kMap = 2 << 20;
const std::u16string kName = u"\\Device\\TestVolume1";

class MapBoot : public SwapVolumeTest {
protected:
    MapBoot() {
        host::SetRegistryStore(&registry_);
        gTesselEnabled = TRUE;
        gConfigLoaded = TRUE;
        v->IsProtected = TRUE;
        v->SwapFile = nullptr;
        std::fill(disk_->At(kMap), disk_->At(kMap + 8192), 0);
    }
    ~MapBoot() override { host::SetRegistryStore(nullptr); }

    void SetLocation(const std::vector<MAP_LOCATION_ENTRY>& runs) {
        ASSERT_EQ(RegSetMapLocation(v, runs.data(), runs.size() * sizeof(MAP_LOCATION_ENTRY)), STATUS_SUCCESS);
    }
    // What a former boot left: a saved map with redirected data in the swap.
    void SaveMap(ULONG freeMegabytes = 60) {
        v->SwapFile = &swapFile_;
        AddFree(kSwap, 16 * S);
        AddFree(kSwap + 16 * S, 16 * S);
        for (ULONG i = 0; i < freeMegabytes; ++i) AddFree((1ll << 30) + (LONGLONG{i} << 20), 1 << 20);
        data_ = Data(8 * S, 1);
        before_ = OnDisk(100 * S, 8 * S);
        PENDING_CHUNK* chain = nullptr;
        const LARGE_INTEGER at = Large(100 * S);
        ASSERT_EQ(LockFreeChunks(v, &at, 8 * S, &chain, nullptr), STATUS_SUCCESS);
        std::ranges::copy(data_, disk_->At(chain->liSwapOffset.QuadPart));
        ASSERT_EQ(CommitChunks(v, chain, 0), STATUS_SUCCESS);
        SetLocation({{kMap / S, 4096}, {kMap / S + 8, 4096}});
        MAP_LOCATION_ENTRY* location = nullptr;
        ULONG length = 0;
        ASSERT_EQ(RegGetMapLocation(v, &location, &length), STATUS_SUCCESS);
        PublishMapLocation(v, location, length);
        WriteSwapMap(filter_, FALSE);
        ForgetMapLocation(v);
        ResetSwapMaps(filter_);
        v->SwapFile = nullptr;
        v->MapDirty = TRUE;
        disk_->TakeTransfers();
    }
    // Whether the map on the disk still holds a redirection.
    bool MapHoldsRedirection() {
        for (int i = 0; i < 8192 / 12; ++i) {
            const auto* entry = reinterpret_cast<SWAP_MAP_ENTRY*>(disk_->At(kMap)) + i;
            if (entry->ulSwapSector != 0 && entry->ulVolumeSector != kFreeSpaceMark) return true;
        }
        return false;
    }
    MemoryRegistry registry_;
    std::vector<std::uint8_t> data_, before_;
};

TEST_F(MapBoot, LocationIsStoredSortedAndReadBack) {
    for (LONGLONG sector : {300, 100, 200}) AddSwapMapChunk(v, sector * S, 4096);
    PostloadSwapMap(v);
    EXPECT_TRUE(registry_.flushed);
    const std::vector<std::uint32_t> words = {100, 4096, 200, 4096, 300, 4096};
    ASSERT_EQ(registry_.values[kName].data.size(), 24u);
    EXPECT_EQ(std::memcmp(registry_.values[kName].data.data(), words.data(), 24), 0);
    EXPECT_EQ(std::memcmp(v->MapLocation, words.data(), 24), 0);
    EXPECT_EQ(RegDelMapLocation(v), STATUS_SUCCESS);
    EXPECT_TRUE(registry_.flushed) << "a location must not outlive its file";
}

TEST_F(MapBoot, DiscardAndSwitchedOffGiveUpTheRedirections) {
    for (const bool enabled : {true, false}) {
        SaveMap();
        ASSERT_TRUE(MapHoldsRedirection());
        v->BootAction = enabled ? PV_ACTION_DISCARD : 0;
        gTesselEnabled = enabled;
        v->SwapMapLoaded = FALSE;
        EnsureSwapMapLoaded(v);
        EXPECT_EQ(Used(), 0u);
        EXPECT_EQ(Free(), 32u * S + (60u << 20));
        EXPECT_FALSE(MapHoldsRedirection());
        EXPECT_EQ(OnDisk(100 * S, 8 * S), before_);
        EXPECT_TRUE(registry_.values.contains(kName));
        EXPECT_EQ(CheckMaps(v), "");
        ForgetMapLocation(v);
        ResetSwapMaps(filter_);
        std::fill(disk_->At(kMap), disk_->At(kMap + 8192), 0);
    }
}

TEST_F(MapBoot, MergeWritesTheDataIntoTheVolumeOnceThereIsSpace) {
    for (const ULONG megabytes : {50, 60}) {
        SaveMap(megabytes);
        v->BootAction = PV_ACTION_MERGE;
        v->SwapMapLoaded = FALSE;
        EnsureSwapMapLoaded(v);
        const bool merged = megabytes == 60;
        EXPECT_EQ(Used(), merged ? 0 : 8 * S);
        EXPECT_EQ(OnDisk(100 * S, 8 * S), merged ? data_ : before_);
        EXPECT_EQ(MapHoldsRedirection(), !merged);
        ForgetMapLocation(v);
        ResetSwapMaps(filter_);
    }
}

TEST_F(MapBoot, WithoutALocationAProtectedVolumeIsLetGo) {
    EnsureSwapMapLoaded(v);
    EXPECT_FALSE(v->IsProtected);
    EXPECT_EQ(v->SwapState, kSwapNoLocation);
    for (ULONG bytes : {1, 7}) {
        v->SwapMapLoaded = FALSE;
        v->SwapState = kSwapUsable;
        v->IsProtected = TRUE;
        registry_.values[kName] = {REG_BINARY, std::vector<UCHAR>(bytes, 0xFF)};
        EnsureSwapMapLoaded(v);
        EXPECT_EQ(v->SwapState, kSwapNoLocation);
        EXPECT_EQ(v->MapLocation, nullptr);
    }
}

TEST_F(MapBoot, AMapWithAnyErrorIsDroppedWholeAndNeverSaved) {
    SaveMap();
    const auto good = OnDisk(kMap, 8192);
    const auto reload = [&] {
        v->SwapMapLoaded = FALSE;
        v->SwapState = kSwapUsable;
        v->IsProtected = TRUE;
        EnsureSwapMapLoaded(v);
        const auto map = OnDisk(kMap, 8192);
        EXPECT_EQ(v->SwapState, kSwapMapBad);
        EXPECT_FALSE(v->IsProtected);
        EXPECT_EQ(Used() + Free(), 0u);
        WriteSwapMap(filter_, TRUE);
        EXPECT_EQ(OnDisk(kMap, 8192), map);
    };
    *disk_->At(kMap + 12) ^= 1;
    reload();
    // Two free ranges that overlap, and a free range over a redirected one, each entry sound in itself.
    std::ranges::copy(good, disk_->At(kMap));
    auto* entries = reinterpret_cast<SWAP_MAP_ENTRY*>(disk_->At(kMap));
    ++entries[2].ulSectors;
    entries[2].ulSwapSector -= 1;
    SealMapEntry(&entries[2]);
    reload();
    std::ranges::copy(good, disk_->At(kMap));
    entries[1].ulSwapSector = entries[0].ulSwapSector + 1;
    SealMapEntry(&entries[1]);
    reload();
    EXPECT_TRUE(Said("Kvr!PreloadSwapMap: storage contains errors!"));
}

TEST_F(MapBoot, ARunThatCannotBeReadIsSkippedAndOneAtTheBootSectorIsNoMap) {
    SaveMap();
    SetLocation({{kMap / S + 1000, 4096}, {kMap / S, 0xFFFFFFF0}, {kMap / S, 4096}, {kMap / S + 8, 4096}});
    disk_->FailRange(IRP_MJ_READ, kMap + 1000 * S, kMap + 1001 * S, STATUS_IO_DEVICE_ERROR);
    host::SetPoolLimit(64 << 20);
    EXPECT_EQ(PreloadSwapMap(filter_), STATUS_SUCCESS);
    host::SetPoolLimit(host::kNoPoolLimit);
    EXPECT_EQ(Used(), 8 * S);
    ResetSwapMaps(filter_);
    SetLocation({{0, 4096}});
    EXPECT_EQ(PreloadSwapMap(filter_), STATUS_SUCCESS);
    EXPECT_EQ(v->SwapState, kSwapMapBad);
}

}  // namespace
}  // namespace support
