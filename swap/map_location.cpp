// Where the saved map lies: the registry value named after the volume, and the copy in the record.
#include "driver/record/registry.h"
#include "platform/owners.h"
#include "swap/map_boot.h"

namespace {

// The name of the volume's value, in a copy of its own as the registry calls want it.
struct VALUE_NAME {
    explicit VALUE_NAME(PVOLUME_EXTENSION volume) : text{0, sizeof(characters), characters} {
        RtlCopyUnicodeString(&text, &volume->VolumeName);
    }
    WCHAR characters[128];
    UNICODE_STRING text;
};

// Appends the run to an array whose slot 0 is a header: its second word counts the slots filled behind it.
ULONG collect_items(PVOID record, PVOID array) {
    auto* slots = static_cast<MAP_LOCATION_ENTRY*>(array);
    if (record) slots[++slots[0].ulLength] = *static_cast<const MAP_LOCATION_ENTRY*>(record);
    return 0;
}

// The captured runs, ascending, behind such a header; empty when there are none or no memory.
PoolPtr<MAP_LOCATION_ENTRY> CollectRuns(PVOLUME_EXTENSION volume) {
    FastMutexLock lock(volume->SwapLock);
    ULONG count = 0;
    tree_walk(&volume->MapFileChunks, count_items, &count);
    DbgPrint("Kvr!PostloadSwapMap: counted: ulCountItems=%d\n", count);
    if (count == 0) return {};
    const SIZE_T bytes = (SIZE_T{count} + 1) * sizeof(MAP_LOCATION_ENTRY);
    PoolPtr<MAP_LOCATION_ENTRY> slots(static_cast<MAP_LOCATION_ENTRY*>(AllocatePool(bytes)));
    if (!slots) return {};
    RtlZeroMemory(slots.Get(), bytes);
    tree_walk(&volume->MapFileChunks, collect_items, slots.Get());
    DbgPrint("Kvr!PostloadSwapMap: stored: ulCountItems=%d\n", slots->ulLength);
    return slots;
}

}  // namespace

NTSTATUS RegGetMapLocation(PVOLUME_EXTENSION volume, MAP_LOCATION_ENTRY** location, ULONG* length) {
    *location = nullptr;
    *length = 0;
    if (volume->VolumeName.Length == 0) return STATUS_INVALID_PARAMETER;
    VALUE_NAME name(volume);
    PoolPtr<UCHAR> data;
    const NTSTATUS status = ReadDriverValue(&name.text, &data, length);
    if (!NT_SUCCESS(status)) return STATUS_INVALID_PARAMETER;
    *location = reinterpret_cast<MAP_LOCATION_ENTRY*>(data.Release());
    return STATUS_SUCCESS;
}

NTSTATUS RegSetMapLocation(PVOLUME_EXTENSION volume, const MAP_LOCATION_ENTRY* location, ULONG length) {
    if (volume->VolumeName.Length == 0 || length == 0 || !location) return STATUS_INVALID_PARAMETER;
    VALUE_NAME name(volume);
    return WriteDriverValue(&name.text, location, length, TRUE);
}

NTSTATUS RegDelMapLocation(PVOLUME_EXTENSION volume) {
    if (volume->VolumeName.Length == 0) return STATUS_INVALID_PARAMETER;
    KernelHandle key;
    if (!NT_SUCCESS(OpenDriverKey(KEY_QUERY_VALUE | KEY_SET_VALUE, &key))) return STATUS_INVALID_PARAMETER;
    VALUE_NAME name(volume);
    const NTSTATUS status = ZwDeleteValueKey(key.Get(), &name.text);
    // At once: a location that outlived the file would have the next boot save its map over other files.
    KVR_DISCARD(ZwFlushKey(key.Get()), "the value is gone; the system's own flush follows anyway");
    DbgPrint("Kvr!RegDelMapLocation: %wZ done\n", &volume->VolumeName);
    return status;
}

void PublishMapLocation(PVOLUME_EXTENSION volume, MAP_LOCATION_ENTRY* location, ULONG length) {
    FastMutexLock lock(volume->SwapLock);
    volume->ulMapLocationLength = length;
    if (MAP_LOCATION_ENTRY* earlier = volume->MapLocation.exchange(location)) FreePool(earlier);
}

void ForgetMapLocation(PVOLUME_EXTENSION volume) {
    PublishMapLocation(volume, nullptr, 0);
}

void PostloadSwapMap(PVOLUME_EXTENSION volume) {
    DbgPrint("Kvr!PostloadSwapMap: begin\n");
    const PoolPtr<MAP_LOCATION_ENTRY> slots = CollectRuns(volume);
    if (!slots) return;
    const ULONG bytes = slots->ulLength * ULONG{sizeof(MAP_LOCATION_ENTRY)};
    KVR_DISCARD(RegSetMapLocation(volume, slots.Get() + 1, bytes), "what is read back tells");
    MAP_LOCATION_ENTRY* location = nullptr;
    ULONG length = 0;
    KVR_DISCARD(RegGetMapLocation(volume, &location, &length), "without a value there is no location");
    PublishMapLocation(volume, location, length);
    DbgPrint("Kvr!PostloadSwapMap: done pTessel->ulMapLocationLength=%d\n", length);
}
