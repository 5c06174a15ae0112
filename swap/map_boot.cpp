#include "swap/map_boot.h"
#include "config/parser.h"
#include "config/protected_volumes.h"
#include "config/storage.h"
#include "driver/record/hardening.h"
#include "driver/record/sector_io.h"
#include "swap/chunk_index.h"
#include "swap/chunk_maps.h"
#include "swap/map_read.h"
#include "swap/map_format.h"
#include "swap/swap_ranges.h"

namespace {

// The map as it is being loaded.
struct MAP_LOAD {
    PVOLUME_EXTENSION volume;
    PoolPtr<MAP_LOCATION_ENTRY> location;  // the record's once the load has ended
    ULONG length;                          // bytes
    NTSTATUS status;                       // of the last step: what the caller is told
    NTSTATUS loaded;                       // STATUS_SUCCESS while runs give chunks
    bool noLocation;
};

// Puts the run where DeserializeSwapMap finds it; null takes it away again.
void OfferRun(PVOLUME_EXTENSION volume, UCHAR* buffer, ULONG length) {
    FastMutexLock lock(volume->SwapLock);
    volume->MapBuffer = buffer;
    volume->MapBufferSize = length;
}

NTSTATUS ReadRun(PVOLUME_EXTENSION volume, const MAP_LOCATION_ENTRY* run, UCHAR* buffer) {
    if (!buffer) return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(buffer, run->ulLength);
    return TransferOnce(IRP_MJ_READ, volume->Target, buffer, run->ulLength,
                        RunOffset(*run, volume->BytesPerSector));
}

// The disk may give tomorrow what it refuses today: a save of what was read would take that away for good.
void ReportUnreadRun(PVOLUME_EXTENSION volume, const MAP_LOCATION_ENTRY* run, NTSTATUS status) {
    volume->MapReadFailed = TRUE;
    DbgPrint("Kvr!PreloadSwapMap: the map's run at sector %u cannot be read, 0x%08x: it is not saved\n",
             run->ulSector, status);
}

// A run that cannot be read is the load's status, and the next one is read.
void LoadRun(MAP_LOAD& load, const MAP_LOCATION_ENTRY* run) {
    if (run->ulLength < sizeof(SWAP_MAP_ENTRY)) {
        load.loaded = STATUS_END_OF_FILE;  // it holds no entry, and needs no reading to know
        return;
    }
    if (!IsUsableRun(run)) {
        load.loaded = STATUS_INVALID_PARAMETER;
        return;
    }
    const PoolPtr<UCHAR> buffer = NewBuffer(run->ulLength);
    load.status = ReadRun(load.volume, run, buffer.Get());
    if (!NT_SUCCESS(load.status)) {
        ReportUnreadRun(load.volume, run, load.status);
        return;
    }
    OfferRun(load.volume, buffer.Get(), run->ulLength);
    load.loaded = DeserializeSwapMap(load.volume->FilterDevice);
    OfferRun(load.volume, nullptr, 0);
}

// A volume that is still locked, or a disk that comes late, fails its first reads: what it holds is not known
// then, and nothing may be decided for the whole boot.
bool IsNoLoad(const MAP_LOAD& load) {
    return gHardening && load.volume->MapReadFailed;
}

// A value too short for one run is no location.
void LoadMap(MAP_LOAD& load) {
    MAP_LOCATION_ENTRY* location = nullptr;
    load.status = RegGetMapLocation(load.volume, &location, &load.length);
    load.location.Reset(location);
    const ULONG runs = load.length / sizeof(MAP_LOCATION_ENTRY);
    load.noLocation = !NT_SUCCESS(load.status) || runs == 0;
    load.volume->MapReadFailed = FALSE;
    for (ULONG r = 0; r < runs && load.loaded == STATUS_SUCCESS && !IsNoLoad(load); ++r)
        LoadRun(load, load.location.Get() + r);
}

// As if nothing had been read: the next request tries again.
void DropLoad(PVOLUME_EXTENSION volume) {
    FastMutexLock lock(volume->SwapLock);
    EmptySwappedChunks(volume);
    EmptyFreeChunks(volume);
}

// A map of which anything is wrong is worth nothing: all of it goes. One that there was no memory to look at
// for overlaps is taken as sound: each of its entries is.
void SettleLoad(MAP_LOAD& load) {
    PVOLUME_EXTENSION volume = load.volume;
    ULONG swapped = 0;
    ULONG free = 0;
    {
        FastMutexLock lock(volume->SwapLock);
        WalkSwappedChunks(volume, count_items, &swapped);
        tree_walk(&volume->FreeChunks, count_items, &free);
        if (NT_SUCCESS(load.loaded) || load.loaded == STATUS_END_OF_FILE) {
            const NTSTATUS verified = VerifySwapRanges(volume, swapped + free);
            if (verified == STATUS_INVALID_PARAMETER) load.loaded = verified;
        }
        if (!NT_SUCCESS(load.loaded) && load.loaded != STATUS_END_OF_FILE) {
            EmptySwappedChunks(volume);
            EmptyFreeChunks(volume);
            swapped = free = 0;
            volume->SwapState = kSwapMapBad;
            DbgPrint("Kvr!PreloadSwapMap: storage contains errors!\n");
        }
    }
    // Only now that the trees hold the whole map, or SwapState says that they do not: from here on a save
    // would write them over what was read.
    if (load.noLocation)
        ForgetMapLocation(volume);
    else
        PublishMapLocation(volume, load.location.Release(), load.length);
    DbgPrint("Kvr!PreloadSwapMap: storage s%d + f%d\n", swapped, free);
}

// Does what the state of the storage says about protection. State 5 does not end a protection that has begun:
// writes let through under live redirections would mix two states on the volume.
void ApplySwapState(PVOLUME_EXTENSION volume, bool noLocation) {
    const ULONG state = volume->SwapState;
    if (state != kSwapUsable && state != kSwapFilesNotHeld)
        volume->IsProtected = FALSE;
    else if (!volume->IsProtected)
        UpdateVolumeProtection(volume);
    if (volume->IsProtected && noLocation) {
        volume->IsProtected = FALSE;
        volume->SwapState = kSwapNoLocation;
    }
}

// The merged data goes before the map that drops its redirections. Where it may have been lost on the way,
// the redirections still have it.
bool IsMergeFlushed(PVOLUME_EXTENSION volume) {
    const NTSTATUS status = FlushDevice(volume->Target);
    if (NT_SUCCESS(status)) return true;
    DbgPrint("Kvr!PreloadSwapMap: the merged data of %wZ is not flushed, 0x%08x\n", &volume->VolumeName,
             status);
    return !gHardening;
}

// TRUE when the redirections must stay although they were to be merged.
BOOLEAN MergeIfDue(PVOLUME_EXTENSION volume) {
    if (!gTesselEnabled || !volume->IsProtected || !(volume->BootAction & PV_ACTION_MERGE) ||
        volume->SwapState != kSwapUsable)
        return FALSE;
    ULONG64 free;
    bool isOverwritten;
    {
        FastMutexLock lock(volume->SwapLock);
        free = volume->SwapFreeBytes;
        isOverwritten = gHardening && IsStorageRedirected(volume);
    }
    if (isOverwritten) {
        DbgPrint("Kvr!PreloadSwapMap: %wZ is not merged, its storage files were given up or changed\n",
                 &volume->VolumeName);
        return TRUE;
    }
    if (free <= kMergeSpaceLimit) return TRUE;  // they stay as they are for one more boot
    MergeSwapIntoVolume(volume->FilterDevice);
    return !IsMergeFlushed(volume);
}

// Many chunks in the order of the swap: in any other order each of them would search a tree that no cache
// holds, and everything that walks the tree afterwards would jump through memory.
void UnuseSwappedChunks(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock) {
    ULONG count = 0;
    WalkSwappedChunks(volume, count_items, &count);
    const ULONG unit = volume->BytesPerSector;
    PoolPtr<ULONG64> ranges;
    if (count >= kIndexFrom && unit != 0) ranges = SortedSwapRanges(volume, SWAP_RANGES::Swapped, count);
    if (!ranges) return WalkSwappedChunks(volume, unuse_swapped_chunks, volume);
    for (ULONG i = 0; i < count; ++i) {
        SWAPPED_CHUNK chunk = {};
        chunk.liSwapOffset.QuadPart = static_cast<LONGLONG>(FirstSectorOf(ranges.Get()[i])) * unit;
        chunk.uLength = static_cast<ULONG>(SectorsOf(ranges.Get()[i])) * unit;
        unuse_swapped_chunks(&chunk, volume);
    }
}

void GiveUpRedirections(PVOLUME_EXTENSION volume) {
    {
        FastMutexLock lock(volume->SwapLock);
        UnuseSwappedChunks(volume);
        AggregateFreeChunks(volume);
        EmptySwappedChunks(volume);
        volume->MapDirty = TRUE;
    }
    WriteSwapMap(volume->FilterDevice, TRUE);
}

void CopyChunk(PVOLUME_EXTENSION volume, const SWAPPED_CHUNK* chunk) {
    const PoolPtr<UCHAR> buffer = NewBuffer(chunk->uLength);
    if (!buffer) return;
    const NTSTATUS status =
        TransferOnce(IRP_MJ_READ, volume->Target, buffer.Get(), chunk->uLength, chunk->liSwapOffset.QuadPart);
    if (!NT_SUCCESS(status)) return;
    KVR_DISCARD(TransferOnce(IRP_MJ_WRITE, volume->Target, buffer.Get(), chunk->uLength,
                             chunk->liVolumeOffset.QuadPart),
                "the redirections are given up, merged or not");
}

ULONG merge_swapped_chunk(PVOID record, PVOID context) {
    if (record) CopyChunk(static_cast<PVOLUME_EXTENSION>(context), static_cast<const SWAPPED_CHUNK*>(record));
    return 0;
}

bool IsMapLoadDue(PVOLUME_EXTENSION volume) {
    return gConfigLoaded && !volume->SwapAllocating && !volume->SwapMapLoaded &&
           volume->MediaType == FixedMedia;
}

}  // namespace

NTSTATUS PreloadSwapMap(PDEVICE_OBJECT device) {
    PVOLUME_EXTENSION volume = VolumeOf(device);
    MAP_LOAD load{volume, PoolPtr<MAP_LOCATION_ENTRY>(), 0, STATUS_SUCCESS, STATUS_SUCCESS, false};
    LoadMap(load);
    if (IsNoLoad(load)) {
        DropLoad(volume);
        return load.status;
    }
    SettleLoad(load);
    ApplySwapState(volume, load.noLocation);
    BOOLEAN keep = MergeIfDue(volume);
    if (volume->BootAction == 0 && gTesselEnabled && volume->IsProtected) keep = TRUE;
    if (!keep && volume->SwapState == kSwapUsable) GiveUpRedirections(volume);
    volume->SwapMapLoaded = TRUE;
    DbgPrint("Kvr!PreloadSwapMap: Done\n");
    return load.status;
}

void EnsureSwapMapLoaded(PVOLUME_EXTENSION volume) {
    if (!IsMapLoadDue(volume)) return;
    KernelMutexLock lock(volume->MapLoadMutex);
    if (volume->MapLoading || !IsMapLoadDue(volume)) return;
    volume->MapLoading = TRUE;
    KVR_DISCARD(PreloadSwapMap(volume->FilterDevice), "SwapState tells what came of it");
    volume->MapLoading = FALSE;
}

// Under SwapLock throughout: nothing may be redirected, or overwritten in the swap, while it is copied.
void MergeSwapIntoVolume(PDEVICE_OBJECT device) {
    PVOLUME_EXTENSION volume = VolumeOf(device);
    FastMutexLock lock(volume->SwapLock);
    tree_walk(&volume->SwappedChunks, merge_swapped_chunk, volume);
    volume->MapDirty = TRUE;
}
