// swap/: the swap space of a protected volume. The maps of redirected, free and pending space, the object that
// stands for the storage (swap_file.h), the map's form on disk (map_format.h) and its loading at boot
// (map_boot.h), and the threads that make, hold and remove the storage files (provision.h). Start here.
//
// The chunk maps of a volume: where each redirected range lives (SwappedChunks), which swap space is free
// (FreeChunks) and which sectors hold the saved map (MapFileChunks). Space moves free -> pending -> swapped,
// or back to free. All offsets are byte offsets on the volume's own lower device, all lengths bytes, all
// whole sectors. Invariants, under SwapLock: swapped chunks do not overlap on the volume; free, swapped and
// pending chunks do not overlap in the swap; no length is 0; the two counters are the sums of their trees.
//
// IRQL of every routine: at most APC_LEVEL. Each takes SwapLock itself unless it says otherwise.
#pragma once
#include "driver/record/volume_extension.h"
#include "formats/space_limits.h"

inline constexpr char kSwapSource[] = "swap";    // what assertions here and in redirect/ name as their file
inline constexpr ULONG kSectorsPerBlock = 2048;  // longest free chunk, and the unit of provisioning

struct SWAPPED_CHUNK {
    LARGE_INTEGER liVolumeOffset;  // key
    LARGE_INTEGER liSwapOffset;
    ULONG uLength;
    ULONG bVolatile;  // 1: redirected until the next boot only
};
static_assert(sizeof(SWAPPED_CHUNK) == 24);

struct FREE_CHUNK {
    LARGE_INTEGER liSwapOffset;  // key
    ULONG uLength;
};

// Swap space held by a write in flight; owned by the segment that points to it.
struct PENDING_CHUNK {
    LARGE_INTEGER liVolumeOffset;
    LARGE_INTEGER liSwapOffset;
    ULONG uLength;
    PENDING_CHUNK* pNext;  // ascending volume offset
};

// Makes the maps of a new record, empty.
void InitSwapMaps(PVOLUME_EXTENSION volume);
// Releases what the maps hold; they stay usable.
void EmptySwapMaps(PVOLUME_EXTENSION volume);
// Releases what the maps hold and begins them anew.
void ResetSwapMaps(PDEVICE_OBJECT device);
// Storage that was written joins the free space. STATUS_INSUFFICIENT_RESOURCES (no record, and the map is as it
// was) or STATUS_UNSUCCESSFUL (no node), each with a message.
[[nodiscard]] NTSTATUS AddSwapFreeChunk(PVOLUME_EXTENSION volume, const LARGE_INTEGER* swapOffset,
                                        ULONG length);
// A run that cannot be recorded is not known later: the map is then shorter.
void AddSwapMapChunk(PVOLUME_EXTENSION volume, LONGLONG offset, ULONG length);
// A zeroed chunk from pool, the caller's; null, with a message, when there is none. Takes no lock.
[[nodiscard]] PENDING_CHUNK* CreatePendingChunk();
// Takes `length` bytes from the lowest free chunks for the write at `volumeOffset`. The chain holds what was
// taken, also on failure, and is the caller's to settle. STATUS_MEDIA_WRITE_PROTECTED: space too low for this
// request, or used up. STATUS_INSUFFICIENT_RESOURCES: no pool.
[[nodiscard]] NTSTATUS LockFreeChunks(PVOLUME_EXTENSION volume, const LARGE_INTEGER* volumeOffset, ULONG length,
                                      PENDING_CHUNK** chain, PIRP request);
// Gives the chain's space back and releases the chain. The last failure, each of which loses a chunk's space
// and is reported, as for AddSwapFreeChunk.
[[nodiscard]] NTSTATUS UnlockFreeChunks(PVOLUME_EXTENSION volume, PENDING_CHUNK* chain);
// Records the chain's ranges as redirected. Where another write has meanwhile redirected a part, that part
// keeps the existing redirection and its new space becomes free again. Releases the chain. The last failure,
// each of which loses a redirection and is reported.
[[nodiscard]] NTSTATUS CommitChunks(PVOLUME_EXTENSION volume, PENDING_CHUNK* chain, ULONG bVolatile);
// Gives up every redirection.
void DiscardSwappedChunks(PVOLUME_EXTENSION volume);
// Merges free chunks that touch, up to kSectorsPerBlock sectors each.
void AggregateFreeChunks(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock);

// Visitors over SwappedChunks (context: the volume record; SwapLock held): the chunk's space becomes free.
ULONG free_swapped_chunks(PVOID record, PVOID volume);
ULONG unuse_swapped_chunks(PVOID record, PVOID volume);
// Does the chunk hold the offset that the probe is? What SwappedChunks match by.
ULONG key_in_chunk(const void* probe, const void* record);
