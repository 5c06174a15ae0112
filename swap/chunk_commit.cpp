// Recording what a write put into the swap.
#include "swap/chunk_index.h"
#include "swap/chunk_maps.h"

namespace {

// A stretch of a pending chunk: on the volume so far, or redirected meanwhile by another write.
struct PIECE {
    LONGLONG volumeOffset;
    LONGLONG swapOffset;
    ULONG length;
    bool redirected;
};

// The stretch of `chunk` that begins at `position`, up to where the map changes.
PIECE NextPiece(PVOLUME_EXTENSION volume, const PENDING_CHUNK* chunk, LONGLONG position)
    KVR_REQUIRES(volume->SwapLock) {
    LONGLONG stop = chunk->liVolumeOffset.QuadPart + chunk->uLength;
    bool redirected = false;
    if (const ChunkCursor other(volume, position); other) {
        redirected = other->liVolumeOffset.QuadPart <= position;
        const LONGLONG change = redirected ? ChunkEnd(&*other) : other->liVolumeOffset.QuadPart;
        if (change < stop) stop = change;
    }
    const LONGLONG into = position - chunk->liVolumeOffset.QuadPart;
    return {position, chunk->liSwapOffset.QuadPart + into, static_cast<ULONG>(stop - position), redirected};
}

// A stretch that was redirected meanwhile stays so, by a write that was sent from within this one and is the
// newer of the two: other writes that overlap wait for each other. The trees never overlap.
NTSTATUS CommitChunk(PVOLUME_EXTENSION volume, const PENDING_CHUNK* chunk, ULONG bVolatile)
    KVR_REQUIRES(volume->SwapLock) {
    NTSTATUS result = STATUS_SUCCESS;
    LONGLONG position = chunk->liVolumeOffset.QuadPart;
    const LONGLONG end = position + chunk->uLength;
    while (position < end) {
        const PIECE piece = NextPiece(volume, chunk, position);
        const NTSTATUS status =
            piece.redirected
                ? RecordFreeChunk(volume, piece.swapOffset, piece.length)
                : RecordSwappedChunk(volume, piece.volumeOffset, piece.swapOffset, piece.length, bVolatile);
        ReportLoss(status, __LINE__, "Kvr!CommitChunks [%d] STATUS_INSUFFICIENT_RESOURCES\n",
                   "Kvr!CommitChunks [%d] STATUS_UNSUCCESSFUL\n");
        if (!NT_SUCCESS(status)) result = status;
        position += piece.length;
    }
    return result;
}

}  // namespace

NTSTATUS CommitChunks(PVOLUME_EXTENSION volume, PENDING_CHUNK* chain, ULONG bVolatile) {
    FastMutexLock lock(volume->SwapLock);
    volume->MapDirty = TRUE;
    NTSTATUS result = STATUS_SUCCESS;
    while (chain) {
        const PoolPtr<PENDING_CHUNK> chunk(chain);
        chain = chunk->pNext;
        const NTSTATUS status = CommitChunk(volume, chunk.Get(), bVolatile);
        if (!NT_SUCCESS(status)) result = status;
    }
    return result;
}
