#include "tests/second_kernel/common/saved_map.h"
#include <algorithm>

namespace {

// Extents that touch carry one chunk.
bool IsInFile(const PlayedFile& file, LONGLONG offset, LONGLONG length) {
    for (const FileExtent& extent : file.Extents) {
        if (offset < extent.Offset || offset >= extent.Offset + extent.Length) continue;
        const LONGLONG part = std::min(length, extent.Offset + extent.Length - offset);
        offset += part;
        length -= part;
    }
    return length == 0;
}

// kvr.SWP and its numbered successors.
bool IsInStorage(Computer* computer, LONGLONG offset, LONGLONG length) {
    return std::ranges::any_of(computer->DataFiles->All(), [&](const auto& file) {
        return file.first.starts_with(u"\\KVR.SWP") && IsInFile(*file.second, offset, length);
    });
}

// Notes every entry of a run; false when the run ends the map.
bool ReadRun(Computer* computer, const MAP_LOCATION_ENTRY& run, SavedMap& map) {
    const ULONG sector = computer->Options.DataSector;
    const ULONGLONG offset = ULONGLONG{run.ulSector} * sector;
    if (!stage::Check(offset != 0 && offset + run.ulLength <= computer->Options.DataBytes,
                      "the map's run lies on the volume", offset, run.ulLength))
        return false;
    bool any = false;
    for (ULONG at = 0; at + sizeof(SWAP_MAP_ENTRY) <= run.ulLength; at += sizeof(SWAP_MAP_ENTRY)) {
        SWAP_MAP_ENTRY entry;
        std::memcpy(&entry, computer->DataSectors + offset + at, sizeof(entry));
        if (IsEmptySlot(&entry)) continue;
        any = true;
        const ULONGLONG bytes = ULONGLONG{entry.ulSectors} * sector;
        const bool isFree = IsFreeEntry(&entry);
        ++(isFree ? map.Free : map.Swapped);
        (isFree ? map.FreeBytes : map.SwappedBytes) += bytes;
        stage::Check(VerifyMapEntry(&entry), "an entry's check byte", offset + at);
        stage::Check(bytes != 0 && IsInStorage(computer, LONGLONG{entry.ulSwapSector} * sector,
                                               static_cast<LONGLONG>(bytes)),
                     "an entry's space lies in the storage files", entry.ulSwapSector, entry.ulSectors);
    }
    return any;
}

}  // namespace

std::vector<MAP_LOCATION_ENTRY> ReadMapLocation() {
    const std::vector<UCHAR> value = stage::RegistryValue(DATA_VOLUME);
    std::vector<MAP_LOCATION_ENTRY> runs(value.size() / sizeof(MAP_LOCATION_ENTRY));
    std::memcpy(runs.data(), value.data(), runs.size() * sizeof(MAP_LOCATION_ENTRY));
    return runs;
}

SavedMap ReadSavedMap(Computer* computer) {
    SavedMap map;
    for (const MAP_LOCATION_ENTRY& run : ReadMapLocation())
        if (!ReadRun(computer, run, map)) break;
    return map;
}

void DamageSavedMap(Computer* computer) {
    const std::vector<MAP_LOCATION_ENTRY> runs = ReadMapLocation();
    if (!stage::Check(!runs.empty(), "there is a map to damage")) return;
    computer->DataSectors[ULONGLONG{runs[0].ulSector} * computer->Options.DataSector + 3] ^= 0x10;
}
