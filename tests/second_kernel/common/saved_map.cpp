#include "tests/second_kernel/common/saved_map.h"
#include "platform/owners.h"

namespace {

bool IsInFile(const PlayedFile& file, ULONGLONG offset, ULONGLONG length) {
    for (ULONG i = 0; i < file.ExtentCount; ++i) {
        const auto start = static_cast<ULONGLONG>(file.Extents[i].Offset);
        const auto size = static_cast<ULONGLONG>(file.Extents[i].Length);
        if (offset >= start && offset + length <= start + size) return true;
        // Extents that touch carry one chunk.
        if (offset >= start && offset < start + size) {
            const ULONGLONG part = start + size - offset;
            offset += part;
            length -= part;
        }
    }
    return false;
}

// kvr.SWP and its numbered successors.
bool IsInStorage(Computer* computer, ULONGLONG offset, ULONGLONG length) {
    for (const PlayedFile& file : computer->DataFiles.Table->Files) {
        if (!file.Exists || file.Path[5] != W('S') || file.Path[6] != W('W')) continue;
        if (IsInFile(file, offset, length)) return true;
    }
    return false;
}

// Calls `visit` for every entry; false when a run ends the map.
template <class Visit>
bool VisitRun(Computer* computer, const MAP_LOCATION_ENTRY& run, const Visit& visit) {
    const ULONGLONG offset = ULONGLONG{run.ulSector} * computer->Options.DataSector;
    if (offset == 0 || offset + run.ulLength > computer->Options.DataBytes) {
        stage::Check(false, "the map's run lies on the volume", offset, run.ulLength);
        return false;
    }
    const UCHAR* bytes = computer->DataSectors + offset;
    bool any = false;
    for (ULONG at = 0; at + sizeof(SWAP_MAP_ENTRY) <= run.ulLength; at += sizeof(SWAP_MAP_ENTRY)) {
        SWAP_MAP_ENTRY entry;
        RtlCopyMemory(&entry, bytes + at, sizeof(entry));
        if (IsEmptySlot(&entry)) continue;
        any = true;
        stage::Check(VerifyMapEntry(&entry), "an entry's check byte", offset + at);
        visit(entry);
    }
    return any;
}

template <class Visit>
void VisitMap(Computer* computer, const SavedMap& map, const Visit& visit) {
    for (ULONG i = 0; i < map.Runs; ++i)
        if (!VisitRun(computer, map.Location[i], visit)) return;
}

void ReadLocation(SavedMap* map) {
    *map = {};
    map->Runs =
        ReadDriverValue(DATA_VOLUME, map->Location, sizeof(map->Location)) / ULONG{sizeof(MAP_LOCATION_ENTRY)};
    if (!stage::Check(map->Runs <= kMostRuns, "runs of the map file", map->Runs)) map->Runs = 0;
    for (ULONG i = 0; i < map->Runs; ++i) map->LocationBytes += map->Location[i].ulLength;
}

}  // namespace

ULONG ReadDriverValue(const WCHAR* name, PVOID buffer, ULONG length) {
    constexpr ULONG header = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);
    UNICODE_STRING path;
    UNICODE_STRING value;
    RtlInitUnicodeString(&path, W("\\Registry\\Machine\\System\\kvr"));
    RtlInitUnicodeString(&value, name);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE key = nullptr;
    NTSTATUS status =
        ZwCreateKey(&key, KEY_QUERY_VALUE, &attributes, 0, nullptr, REG_OPTION_NON_VOLATILE, nullptr);
    if (!stage::CheckStatus(status, STATUS_SUCCESS, "the driver's registry key")) return 0;
    const Bytes information(header + length);
    ULONG returned = 0;
    status =
        ZwQueryValueKey(key, &value, KeyValuePartialInformation, information.Get(), header + length, &returned);
    (void)ZwClose(key);
    if ((!NT_SUCCESS(status) && status != STATUS_BUFFER_OVERFLOW) || returned <= header) return 0;
    const ULONG bytes = returned - header;
    RtlCopyMemory(buffer, information.Get() + header, bytes < length ? bytes : length);
    return bytes;
}

void ReadSavedMap(Computer* computer, SavedMap* map) {
    ReadLocation(map);
    const ULONG sector = computer->Options.DataSector;
    VisitMap(computer, *map, [&](const SWAP_MAP_ENTRY& entry) {
        const ULONGLONG bytes = ULONGLONG{entry.ulSectors} * sector;
        const bool isFree = IsFreeEntry(&entry);
        ++(isFree ? map->Free : map->Swapped);
        (isFree ? map->FreeBytes : map->SwappedBytes) += bytes;
        stage::Check(bytes != 0 && IsInStorage(computer, ULONGLONG{entry.ulSwapSector} * sector, bytes),
                     "an entry's space lies in the storage files", entry.ulSwapSector, entry.ulSectors);
    });
}

void DamageSavedMap(Computer* computer) {
    SavedMap map;
    ReadLocation(&map);
    if (!stage::Check(map.Runs != 0, "there is a map to damage")) return;
    computer->DataSectors[ULONGLONG{map.Location[0].ulSector} * computer->Options.DataSector + 3] ^= 0x10;
}
