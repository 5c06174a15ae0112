#include "redirect/segments.h"
#include "platform/assert.h"
#include "swap/chunk_index.h"
#include "swap/chunk_maps.h"

namespace {

constexpr LONGLONG kLastOffset = 0x7FFFFFFFFFFFFFFF;
constexpr ULONG kLongestRun = 0xFFFFFFFF;

// What is still to be cut.
struct REST {
    LONGLONG position;  // on the volume
    ULONG sector;       // its number
    ULONG count;        // sectors
    ULONG done;         // offset in the request's buffer
};

// Bytes from `offset`, inside the chunk at the cursor, that follow each other on the volume and in the swap.
ULONG64 StretchInSwap(ChunkCursor cursor, LONGLONG offset, ULONG limit) {
    SWAPPED_CHUNK chunk = *cursor;
    ULONG64 length = static_cast<ULONG64>(ChunkEnd(&chunk) - offset);
    while (length < limit) {
        cursor.Next();
        if (!cursor || cursor->liVolumeOffset.QuadPart != ChunkEnd(&chunk) ||
            cursor->liSwapOffset.QuadPart != chunk.liSwapOffset.QuadPart + chunk.uLength)
            break;
        length += cursor->uLength;
        chunk = *cursor;
    }
    return length;
}

ULONG Bounded(ULONG64 length, ULONG limit) {
    return length < limit ? static_cast<ULONG>(length) : limit;
}

ULONG WholeSectors(ULONG length, ULONG unit) {
    return length / unit + (length % unit != 0);
}

// Cuts the rest into segments and links them at `slot`, before what it holds. The map may change between two
// looks at it, so two looks in a row may both find the volume: they are one run.
NTSTATUS CutRuns(PVOLUME_EXTENSION volume, ULONG unit, REST* rest, SEGMENT** slot) {
    SEGMENT* current = nullptr;
    while (rest->count > 0) {
        const MAP_RUN run = LookupRun(volume, rest->position, rest->count * unit);
        const ULONG sectors = WholeSectors(run.length, unit);
        if (!current || current->bInSwap || run.bInSwap) {
            current = NewRecord<SEGMENT>().Release();
            if (!current) return STATUS_INSUFFICIENT_RESOURCES;
            current->bInSwap = run.bInSwap;
            current->liSwapOffset.QuadPart = run.bInSwap ? run.swapOffset : 0;
            current->liVolumeOffset.QuadPart = rest->position;
            current->ulFirstSector = rest->sector;
            current->uOffset = rest->done;
            current->pNext = *slot;
            *slot = current;
            slot = &current->pNext;
        }
        current->uLength += sectors * unit;
        rest->position += sectors * unit;
        rest->sector += sectors;
        rest->count -= sectors;
        rest->done += sectors * unit;
    }
    return STATUS_SUCCESS;
}

}  // namespace

MAP_RUN LookupRun(PVOLUME_EXTENSION volume, LONGLONG offset, ULONG limit) {
    FastMutexLock lock(volume->SwapLock);
    const ChunkCursor chunk(volume, offset);
    if (!chunk) return {FALSE, 0, limit};
    const LONGLONG into = offset - chunk->liVolumeOffset.QuadPart;
    if (into < 0) return {FALSE, 0, Bounded(static_cast<ULONG64>(-into), limit)};
    return {TRUE, chunk->liSwapOffset.QuadPart + into, Bounded(StretchInSwap(chunk, offset, limit), limit)};
}

ULONG GetSwapRunLength(PVOLUME_EXTENSION volume, LONGLONG offset, LONGLONG* swapOffset) {
    const ULONG unit = volume->BytesPerSector;
    const ULONG limit = unit ? kLongestRun / unit * unit : kLongestRun;
    const MAP_RUN run = LookupRun(volume, offset, limit);
    if (!run.bInSwap) return 0;
    if (swapOffset) *swapOffset = run.swapOffset;
    return run.length;
}

NTSTATUS BuildSegments(PVOLUME_EXTENSION volume, ULONG length, const LARGE_INTEGER* offset, SEGMENT** list) {
    *list = nullptr;
    const ULONG unit = volume->BytesPerSector;
    if (unit == 0) return STATUS_DEVICE_NOT_READY;
    const LONGLONG position = offset->QuadPart;
    if (position < 0 || position > kLastOffset - length) return STATUS_INVALID_PARAMETER;
    REST rest = {position, static_cast<ULONG>(position / unit), length / unit, 0};
    const NTSTATUS status = CutRuns(volume, unit, &rest, list);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Kvr!BuildSegments [%d] STATUS_INSUFFICIENT_RESOURCES\n", __LINE__);
        return status;
    }
    const ULONG uOffset = rest.done;
    const ULONG uLength = length;
    KVR_ASSERT(kSwapSource, uOffset <= uLength);
    return STATUS_SUCCESS;
}

NTSTATUS SplitSegmentBySwapRuns(PVOLUME_EXTENSION volume, SEGMENT* segment) {
    const ULONG unit = volume->BytesPerSector;
    if (unit == 0) return STATUS_DEVICE_NOT_READY;  // a restart may store another
    const LONGLONG position = segment->liVolumeOffset.QuadPart;
    const MAP_RUN run = LookupRun(volume, position, segment->uLength);
    segment->bInSwap = run.bInSwap;
    if (!run.bInSwap) return STATUS_SUCCESS;
    segment->liSwapOffset.QuadPart = run.swapOffset;
    const ULONG uBytesInSwap = WholeSectors(run.length, unit) * unit;
    KVR_ASSERT(kSwapSource, 0 != uBytesInSwap);
    if (segment->uLength <= uBytesInSwap) return STATUS_SUCCESS;
    REST rest = {position + uBytesInSwap, segment->ulFirstSector + uBytesInSwap / unit,
                 (segment->uLength - uBytesInSwap) / unit, segment->uOffset + uBytesInSwap};
    segment->uLength = uBytesInSwap;
    const NTSTATUS status = CutRuns(volume, unit, &rest, &segment->pNext);
    if (!NT_SUCCESS(status)) DbgPrint("Kvr!BuildIrpList [%d] STATUS_INSUFFICIENT_RESOURCES\n", __LINE__);
    return status;
}

NTSTATUS SplitSegmentByChunks(PVOLUME_EXTENSION volume, SEGMENT* segment) {
    const ULONG unit = volume->BytesPerSector;
    if (unit == 0) return STATUS_DEVICE_NOT_READY;  // a restart may store another
    SEGMENT* pSegment = segment;
    pSegment->uLength = pSegment->pChunk->uLength;
    KVR_ASSERT(kSwapSource, 0 != pSegment->uLength);
    while (pSegment->pChunk->pNext) {
        SEGMENT* current = pSegment;
        pSegment = NewRecord<SEGMENT>().Release();
        if (!pSegment) {
            DbgPrint("Kvr!BuildIrpList [%d] STATUS_INSUFFICIENT_RESOURCES\n", __LINE__);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        pSegment->pChunk = current->pChunk->pNext;
        current->pChunk->pNext = nullptr;
        pSegment->ulFirstSector = current->ulFirstSector + current->uLength / unit;
        pSegment->uOffset = current->uOffset + current->uLength;
        pSegment->uLength = pSegment->pChunk->uLength;
        KVR_ASSERT(kSwapSource, 0 != pSegment->uLength);
        pSegment->liVolumeOffset.QuadPart = current->liVolumeOffset.QuadPart + current->uLength;
        pSegment->pNext = current->pNext;
        current->pNext = pSegment;
    }
    return STATUS_SUCCESS;
}

void ReleaseSegmentChunks(PVOLUME_EXTENSION volume, SEGMENT* list, BOOLEAN commit, ULONG bVolatile) {
    while (list) {
        const PoolPtr<SEGMENT> segment(list);
        list = segment->pNext;
        if (!segment->pChunk) continue;
        KVR_DISCARD(commit ? CommitChunks(volume, segment->pChunk, bVolatile)
                           : UnlockFreeChunks(volume, segment->pChunk),
                    "each chunk is settled, and what could not be recorded has been reported");
    }
}
