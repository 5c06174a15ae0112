// The saved map of a volume: where it lies and what its sectors hold. For the driver, which writes and reads
// it, and for whoever looks at a medium without the driver. All integers are little-endian.
//
// The map file's runs, ascending, are the value of the volume's name in the driver's registry key. Each run
// holds as many whole entries as fit, packed from its first byte; what is behind them is zero. There is no
// header and no count: the map ends with the first run that holds nothing but empty slots, or with the last
// run.
#pragma once
#include <cstddef>
#include <cstdint>

// A run of the map file.
struct MAP_LOCATION_ENTRY {
    std::uint32_t ulSector;  // first sector on the volume
    std::uint32_t ulLength;  // bytes
};
static_assert(sizeof(MAP_LOCATION_ENTRY) == 8 && offsetof(MAP_LOCATION_ENTRY, ulLength) == 4);

inline constexpr std::uint32_t MAP_CHECK_SEED = 0x4B56;
inline constexpr std::uint32_t kFreeSpaceMark = 0xFFFFFFFF;
inline constexpr std::uint32_t kMostMapSectors = 0xFFFFFF;  // an entry's length has 24 bits

// A redirected range, or free swap space; in sectors of the volume.
struct SWAP_MAP_ENTRY {
    std::uint32_t ulVolumeSector;  // kFreeSpaceMark: the entry describes free space
    std::uint32_t ulSwapSector;    // 0, or equal to ulVolumeSector: an empty slot
    std::uint32_t ulSectors : 24;  // length
    std::uint32_t ucCheck : 8;     // check byte of bytes 0 to 10
};
static_assert(sizeof(SWAP_MAP_ENTRY) == 12 && offsetof(SWAP_MAP_ENTRY, ulSwapSector) == 4);

// A run without room for an entry ends the map, for the writer as for the reader. So does, for the writer, one
// at sector 0, where no file can lie: the volume's boot sector is not overwritten, whatever the registry says.
[[nodiscard]] inline bool IsUsableRun(const MAP_LOCATION_ENTRY* run) {
    return run->ulSector != 0 && run->ulLength >= sizeof(SWAP_MAP_ENTRY);
}

[[nodiscard]] inline bool IsEmptySlot(const SWAP_MAP_ENTRY* entry) {
    return entry->ulSwapSector == 0 || entry->ulSwapSector == entry->ulVolumeSector;
}

[[nodiscard]] inline bool IsFreeEntry(const SWAP_MAP_ENTRY* entry) {
    return entry->ulVolumeSector == kFreeSpaceMark;
}

// The check byte of the 11 bytes in front of it: every byte is weighted by its place, so that bytes that
// changed places are found too.
[[nodiscard]] inline std::uint8_t MapEntryCheck(const SWAP_MAP_ENTRY* entry) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(entry);
    std::uint32_t sum = MAP_CHECK_SEED;
    for (std::uint32_t i = 0; i + 1 < sizeof(*entry); ++i) sum += (i + 1) * bytes[i];
    return static_cast<std::uint8_t>((sum & 0xFF) ^ ((sum >> 8) & 0xFF));
}

// Before an entry is written, and after it was read.
inline void SealMapEntry(SWAP_MAP_ENTRY* entry) {
    entry->ucCheck = MapEntryCheck(entry);
}
[[nodiscard]] inline bool VerifyMapEntry(const SWAP_MAP_ENTRY* entry) {
    return entry->ucCheck == MapEntryCheck(entry);
}
