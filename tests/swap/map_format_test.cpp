#include <random>
#include "swap/map_boot.h"
#include "swap/map_format.h"
#include "tests/swap/swap_volume.h"

namespace support {
namespace {

constexpr LONGLONG kMap = 2 << 20;

class MapFormat : public SwapVolumeTest {
protected:
    void Locate(const std::vector<MAP_LOCATION_ENTRY>& runs) {
        const SIZE_T bytes = runs.size() * sizeof(MAP_LOCATION_ENTRY);
        auto* location = static_cast<MAP_LOCATION_ENTRY*>(AllocatePool(bytes));
        std::memcpy(location, runs.data(), bytes);
        PublishMapLocation(v, location, static_cast<ULONG>(bytes));
    }
    NTSTATUS Load(const void* run, ULONG length) KVR_NO_ANALYSIS {
        auto buffer =
            NewBuffer(length ? length : 1);  // exactly as long, so that a sanitizer sees a step past it
        std::memcpy(buffer.Get(), run, length);
        v->MapBuffer = buffer.Get();
        v->MapBufferSize = length;
        const NTSTATUS status = DeserializeSwapMap(filter_);
        v->MapBuffer = nullptr;
        return status;
    }
    NTSTATUS LoadFromDisk(LONGLONG offset, ULONG length) { return Load(disk_->At(offset), length); }
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
    bool IsZero(LONGLONG offset, ULONG length) {
        const auto bytes = OnDisk(offset, length);
        return std::count(bytes.begin(), bytes.end(), 0) == static_cast<long>(length);
    }
};

TEST_F(MapFormat, AnEntryByteByByte) {
    Locate({{kMap / S, 4096}, {kMap / S + 100, 4096}});
    Redirect(0x10000, 0x200000, 4096);
    EXPECT_EQ(WriteSwapMap(filter_, FALSE), STATUS_SUCCESS);
    const std::vector<std::uint8_t> entry = {0x80, 0, 0, 0, 0, 0x10, 0, 0, 8, 0, 0, 0x32};
    EXPECT_EQ(OnDisk(kMap, 12), entry);
    EXPECT_TRUE(IsZero(kMap + 12, 4096 - 12));
    EXPECT_TRUE(IsZero(kMap + 100 * S, 4096)) << "an all-zero run ends the map";
    EXPECT_TRUE(Said("map sectors written: 2") && Said("storage s1 + f0"));
    SWAP_MAP_ENTRY read;
    for (int byte = 0; byte < 12; ++byte) {  // no single changed byte passes
        std::memcpy(&read, entry.data(), 12);
        EXPECT_TRUE(VerifyMapEntry(&read));
        reinterpret_cast<std::uint8_t*>(&read)[byte] ^= 1;
        EXPECT_FALSE(VerifyMapEntry(&read));
        EXPECT_EQ(Load(&read, 12), STATUS_INVALID_PARAMETER);
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
    WriteSwapMap(filter_, FALSE);
    EXPECT_TRUE(Said("map sectors written: 3")) << "42 entries, then 78; the third run ends the map";
    ResetSwapMaps(filter_);
    EXPECT_EQ(LoadFromDisk(kMap, 512), STATUS_SUCCESS);
    EXPECT_EQ(LoadFromDisk(kMap + S, 1024), STATUS_SUCCESS);
    EXPECT_EQ(LoadFromDisk(kMap + 9 * S, 512), STATUS_END_OF_FILE);
    EXPECT_EQ(CheckMaps(v), "");
    EXPECT_EQ(Used() + Free(), used + free);
    EXPECT_LT(Used(), used);  // the redirections until the next boot have become free space
    EXPECT_EQ(GetSwapRunLength(v, 0), 0u);
    EXPECT_NE(GetSwapRunLength(v, 40 * S), 0u);
}

TEST_F(MapFormat, LocationsThatCannotHoldAMapAreNotFollowed) {
    for (int i = 0; i < 50; ++i) Redirect(i * 4 * S, kSwap + i * S, S);
    const auto before = disk_->Copy();
    for (const auto& runs : std::vector<std::vector<MAP_LOCATION_ENTRY>>{
             {{0, 4096}}, {{kMap / S, 0}}, {{kMap / S, 11}}, {{kMap / S, 0xFFFFFE00}}}) {
        Locate(runs);
        v->MapDirty = TRUE;
        host::SetPoolLimit(64 << 20);
        WriteSwapMap(filter_, FALSE);
        host::SetPoolLimit(host::kNoPoolLimit);
        EXPECT_TRUE(disk_->Copy() == before);
    }
    // More entries than slots: the map is cut, and a sector-0 run behind it is left alone.
    Locate({{kMap / S, 512}, {0, 512}});
    v->MapDirty = TRUE;
    WriteSwapMap(filter_, FALSE);
    EXPECT_EQ(OnDisk(0, S), std::vector<std::uint8_t>(before.begin(), before.begin() + S));
    Locate({{kMap / S, 512}});
    v->MapDirty = TRUE;
    WriteSwapMap(filter_, FALSE);
    ResetSwapMaps(filter_);
    EXPECT_EQ(LoadFromDisk(kMap, 512), STATUS_SUCCESS);
    EXPECT_EQ(Used(), 42 * S);
}

TEST_F(MapFormat, TheReaderTrustsNothing) {
    const ULONG sector = kSwap / S;
    for (const SWAP_MAP_ENTRY& bad :
         {Entry(100, sector + 50, 0), Entry(kFreeSpaceMark, sector + 50, 0), Entry(100, sector + 50, 0x800000),
          Entry(8, sector + 50, 1), Entry(3, sector + 50, 3), Entry(kFreeSpaceMark, sector + 20, 4)}) {
        ResetSwapMaps(filter_);
        EXPECT_EQ(LoadEntries({Entry(5, sector, 4), Entry(kFreeSpaceMark, sector + 20, 2), bad}),
                  STATUS_INVALID_PARAMETER);
        EXPECT_EQ(CheckMaps(v), "");
    }
    ResetSwapMaps(filter_);
    v->BytesPerSector = 0;
    EXPECT_EQ(LoadEntries({Entry(5, sector, 4)}), STATUS_INVALID_PARAMETER);
    v->BytesPerSector = 0xFFFFFE00;  // 2^63 bytes and more
    EXPECT_EQ(LoadEntries({Entry(0xFFFFFFF0, 1, 1)}), STATUS_INVALID_PARAMETER);
    v->BytesPerSector = S;
    const std::vector<std::uint8_t> bytes(11, 0xFF);
    for (ULONG length = 0; length < 12; ++length) EXPECT_EQ(Load(bytes.data(), length), STATUS_END_OF_FILE);
    EXPECT_EQ(LoadEntries({Entry(7, 7, 1), Entry(9, 0, 1)}), STATUS_END_OF_FILE);  // empty slots
}

}  // namespace
}  // namespace support
