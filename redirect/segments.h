// Cutting a request into runs. A SEGMENT lies either wholly on the volume or wholly inside one stretch of
// swap space that is contiguous on the volume and in the swap. The map is looked at once per run, under
// SwapLock, which each routine takes itself. IRQL: at most APC_LEVEL.
#pragma once
#include "driver/record/sector_io.h"
#include "swap/swap.h"

struct SEGMENT {
    SEGMENT* pNext;
    LARGE_INTEGER liVolumeOffset;
    LARGE_INTEGER liSwapOffset;  // set when bInSwap
    BOOLEAN bInSwap;
    ULONG ulFirstSector;    // on the volume; recorded only
    ULONG uOffset;          // inside the request's buffer
    ULONG uLength;          // whole sectors, never 0
    PENDING_CHUNK* pChunk;  // space taken for this run by a write
    TRANSFER Transfer;      // of this run, while it is under way
};

// What one look at the map says about the bytes at an offset.
struct MAP_RUN {
    BOOLEAN bInSwap;      // the first `length` bytes lie in the swap, in one stretch, or all on the volume
    LONGLONG swapOffset;  // where, when bInSwap
    ULONG length;         // at least 1, at most the limit asked for
};
// The run that begins at `offset`; `limit`, not 0, is as far as the caller wants to know.
[[nodiscard]] MAP_RUN LookupRun(PVOLUME_EXTENSION volume, LONGLONG offset, ULONG limit);
// Bytes from `offset` that are redirected and contiguous on the volume and in the swap; 0 when `offset` is not
// redirected. A stretch of 4 GiB or more counts as the longest whole number of sectors below that.
[[nodiscard]] ULONG GetSwapRunLength(PVOLUME_EXTENSION volume, LONGLONG offset, LONGLONG* swapOffset = nullptr);
// `list` receives the runs of [offset, offset + length), ascending, without a gap; a remainder of less than a
// sector is left out. Nothing is realigned: an offset inside a sector is cut from there, in steps of a sector,
// each of which lies where its first byte does. On failure the segments made so far are in `list`. A volume
// that has not started (BytesPerSector 0) gives STATUS_DEVICE_NOT_READY, a range that no volume can have
// STATUS_INVALID_PARAMETER.
[[nodiscard]] NTSTATUS BuildSegments(PVOLUME_EXTENSION volume, ULONG length, const LARGE_INTEGER* offset,
                                     SEGMENT** list);
// A segment found on the volume that has meanwhile become redirected: cut at the ends of its swap runs.
[[nodiscard]] NTSTATUS SplitSegmentBySwapRuns(PVOLUME_EXTENSION volume, SEGMENT* segment);
// A segment whose pChunk is a chain: one segment per pending chunk.
[[nodiscard]] NTSTATUS SplitSegmentByChunks(PVOLUME_EXTENSION volume, SEGMENT* segment);
// Settles every pending chunk of the list (commit or give back) and releases every segment; null is an empty
// list. `bVolatile` as for CommitChunks.
void ReleaseSegmentChunks(PVOLUME_EXTENSION volume, SEGMENT* list, BOOLEAN commit, ULONG bVolatile);
