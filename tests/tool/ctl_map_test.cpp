// The saved map: what is drawn, and that damage is told instead.
#include <gtest/gtest.h>
#include <cstring>
#include "ctl_support.h"
#include "tests/support/scratch_folder.h"
#include "tool/kvrctl/map_picture.h"
#include "tool/kvrctl/saved_map.h"

namespace {

using namespace ctl;
using namespace ctl_test;

constexpr char16_t kVolume[] = u"\\Device\\V";
constexpr std::uint64_t kSectors = 6400;

SWAP_MAP_ENTRY Entry(std::uint32_t volume, std::uint32_t swap, std::uint32_t sectors) {
    SWAP_MAP_ENTRY entry{volume, swap, sectors, 0};
    SealMapEntry(&entry);
    return entry;
}

MAP_LOCATION_ENTRY RunAt(std::uint32_t sector, std::uint32_t bytes) {
    return {sector, bytes};
}

// A volume whose map lies in two runs: 42 entries fit into the first.
struct MapVolume {
    Machine machine;
    std::vector<MAP_LOCATION_ENTRY> runs = {{6000, 512}, {6100, 1024}};
    std::vector<SWAP_MAP_ENTRY> entries = {Entry(128, 4096, 8),
                                           Entry(136, 4104, 2),
                                           Entry(138, 4200, 1),
                                           Entry(5000, 4300, 64),
                                           Entry(kFreeSpaceMark, 4400, 100),
                                           Entry(kFreeSpaceMark, 4500, 50)};

    SavedMap Read() {
        VolumeFacts facts;
        facts.bytes = kSectors * 512, facts.sectorBytes = 512;
        machine.facts[kVolume] = facts;
        Bytes location(runs.size() * sizeof(MAP_LOCATION_ENTRY)), volume(kSectors * 512);
        if (!runs.empty()) std::memcpy(location.data(), runs.data(), location.size());
        location.resize(location.size() - cut);
        for (std::size_t slot = 0; slot < entries.size(); ++slot) {
            const std::size_t at = slot < 42 ? 6000 * 512 + slot * 12 : 6100 * 512 + (slot - 42) * 12;
            std::memcpy(volume.data() + at, &entries[slot], sizeof entries[slot]);
        }
        machine.sectors[kVolume] = volume;
        machine.registry[kVolume] = location;
        MadeUpWorld world(machine);
        return ReadSavedMap(world, kVolume);
    }
    std::size_t cut = 0;  // bytes missing of the registry's value
};

// A redirected write to a place in the storage, or in the map's file: the sectors that both have.
TEST(CtlMap, FindsWritesOverTheStorageItself) {
    EXPECT_EQ(0u, OverwrittenSectors(MapVolume().Read()));
    const struct {
        SWAP_MAP_ENTRY more;
        std::uint64_t sectors;
    } table[] = {
        {Entry(4090, 4600, 6), 0},        {Entry(4090, 4600, 7), 1}, {Entry(4549, 4600, 7), 1},
        {Entry(4550, 4600, 7), 0},        {Entry(6000, 4600, 8), 1}, {Entry(4095, 4600, 12), 10},
        {Entry(4605, 4600, 100), 0 + 95},
    };
    for (const auto& row : table) {
        MapVolume volume;
        volume.entries.push_back(row.more);
        EXPECT_EQ(row.sectors, OverwrittenSectors(volume.Read())) << row.more.ulVolumeSector;
    }
}

// Files that still have all of it, in whatever pieces, and such that have not.
TEST(CtlMap, FindsStorageThatItsFilesNoLongerHave) {
    const SectorRange map{6000, 200}, swap{4096, 454}, more{5000, 9};
    const struct {
        std::vector<SectorRange> files;
        std::uint64_t sectors;
    } table[] = {
        {{swap, map, more}, 0},
        {{{4200, 400}, {4090, 110}, map}, 0},
        {{swap}, 3},
        {{map, {4096, 8}, {4106, 444}}, 2},
        {{}, 3 + 8 + 2 + 1 + 64 + 150},
    };
    for (const auto& row : table) EXPECT_EQ(row.sectors, SectorsOutside(MapVolume().Read(), row.files));
}

TEST(CtlMap, ReadsWhatTheDriverWrote) {
    MapVolume volume;
    const SavedMap map = volume.Read();
    EXPECT_EQ((std::vector<RedirectedRange>{{128, 4096, 8}, {136, 4104, 2}, {138, 4200, 1}, {5000, 4300, 64}}),
              map.redirected);
    EXPECT_EQ((std::vector<SectorRange>{{4400, 100}, {4500, 50}}), map.free);
    const MapSummary summary = Summarize(map);
    EXPECT_EQ(75u, summary.redirectedSectors);
    EXPECT_EQ(2u, summary.ranges);
    EXPECT_EQ(64u, summary.largestRange);
    EXPECT_EQ(3u, summary.pieces);
    EXPECT_EQ(150u, summary.largestFree);
    // Full first run: reading goes on; an empty one ends the map.
    volume.entries.clear();
    for (std::uint32_t i = 0; i < 42; ++i) volume.entries.push_back(Entry(kFreeSpaceMark, 2 * i + 1, 1));
    volume.entries.push_back(Entry(7, 5000, 1));
    EXPECT_EQ(1u, volume.Read().redirected.size());
    std::fill_n(volume.entries.begin(), 42, SWAP_MAP_ENTRY{});
    EXPECT_TRUE(volume.Read().redirected.empty());
}

TEST(CtlMap, DamageIsTold) {
    const struct {
        const char* says;
        std::function<void(MapVolume&)> damage;
    } table[] = {
        {"fails its check", [](MapVolume& v) { v.entries[1].ulSwapSector ^= 1; }},
        {"has no sectors", [](MapVolume& v) { v.entries[1] = Entry(9, 4104, 0); }},
        {"beyond the volume's end", [](MapVolume& v) { v.entries[1] = Entry(0xFFFFFFFE, 4104, 2); }},
        {"beyond the volume's end",
         [](MapVolume& v) { v.entries[1] = Entry(kFreeSpaceMark, 0xFFFFFFFF - 1, 8); }},
        {"redirected twice", [](MapVolume& v) { v.entries[1] = Entry(135, 5500, 2); }},
        {"used twice", [](MapVolume& v) { v.entries[1] = Entry(300, 4449, 2); }},
        {"beyond the volume's end", [](MapVolume& v) { v.runs[1] = RunAt(0xFFFFFFFF, 0xFFFFFFFF); }},
        {"larger than the volume", [](MapVolume& v) { v.runs.assign(3, RunAt(1, 5000 * 512)); }},
        {"length that is none", [](MapVolume& v) { v.cut = 3; }},
        {"no saved map", [](MapVolume& v) { v.runs.clear(); }},
    };
    for (const auto& row : table) {
        MapVolume volume;
        row.damage(volume);
        const std::string told = Complaint([&] { volume.Read(); });
        EXPECT_NE(std::string::npos, told.find(row.says)) << row.says << told;
    }
    MapVolume whole;
    whole.runs[1] = RunAt(0, 512);
    EXPECT_EQ("", Complaint([&] { whole.Read(); }));
}

TEST(CtlMap, ASaveUnderWayIsWaitedForAndDamageIsNot) {
    for (const bool saved : {true, false}) {
        MapVolume volume;
        volume.machine.AddFixed(kVolume);
        const SWAP_MAP_ENTRY good = volume.entries[0];
        volume.entries[0].ulSwapSector ^= 1;
        EXPECT_THROW(volume.Read(), DamagedMap);
        unsigned pauses = 0;
        const Result result = RunOn(volume.machine, {"map", "V"}, [&] {
            if (++pauses == 2 && saved) volume.entries[0] = good, volume.Read();
            return true;
        });
        EXPECT_EQ(saved ? kExitOk : kExitFailed, result.exitCode) << result.err;
        EXPECT_EQ(saved ? 2u : 19u, pauses);
    }
}

TEST(CtlMap, PictureShowsEverySector) {
    MapVolume volume;
    const SavedMap map = volume.Read();
    std::vector<Cell> expected(kSectors, Cell::Untouched);
    const auto draw = [&](std::ptrdiff_t first, std::ptrdiff_t count, Cell cell) {
        std::fill_n(expected.begin() + first, count, cell);
    };
    draw(128, 11, Cell::Redirected), draw(5000, 64, Cell::Redirected), draw(4400, 150, Cell::SwapFree);
    draw(4096, 10, Cell::SwapUsed), draw(4200, 1, Cell::SwapUsed), draw(4300, 64, Cell::SwapUsed);
    EXPECT_EQ(expected, MapCells(map, kSectors));
    const std::vector<Cell> coarse = MapCells(map, 100);  // 64 sectors each
    EXPECT_EQ(Cell::SomeRedirected, coarse[2]);
    EXPECT_EQ(Cell::Redirected, coarse[78]);
    EXPECT_EQ(Cell::SwapUsed, coarse[64]);
    EXPECT_EQ(Cell::SwapFree, coarse[70]);
    EXPECT_EQ(Cell::Redirected, MapCells(map, 20000)[20000 * 5030 / kSectors]) << "more cells than sectors";
    EXPECT_NE(std::string::npos,
              MapSvg(map, "<a & \"b\">").find("<title>&lt;a &amp; &quot;b&quot;&gt;</title>"));
}

}  // namespace
