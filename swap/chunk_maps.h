// Steps that the operations on the chunk maps share; for swap/ only. The caller holds SwapLock: each leaves the
// maps' invariants as it found them.
#pragma once
#include "platform/owners.h"
#include "swap/swap.h"

[[nodiscard]] inline LONGLONG ChunkEnd(const SWAPPED_CHUNK* chunk) {
    return chunk->liVolumeOffset.QuadPart + chunk->uLength;
}

// The tree takes the record, unless one that matches it is there: then `isNew` is false, and the record goes.
// STATUS_UNSUCCESSFUL: no node.
template <class T>
[[nodiscard]] NTSTATUS StoreRecord(TREE* tree, PoolPtr<T> record, bool* isNew) {
    TREE_NODE* node = tree_insert(tree, record.Get());
    *isNew = node && node->Record == record.Get();
    if (*isNew) record.Release();
    return node ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

// Moves the count of free bytes, and the mirror of it in the volume's SWAP_FILE where there is one.
void CreditFreeSpace(PVOLUME_EXTENSION volume, ULONG64 bytes) KVR_REQUIRES(volume->SwapLock);
void DebitFreeSpace(PVOLUME_EXTENSION volume, ULONG64 bytes) KVR_REQUIRES(volume->SwapLock);

// Space joins FreeChunks and is counted; space that is recorded already is not counted again.
// STATUS_INSUFFICIENT_RESOURCES: no record. STATUS_UNSUCCESSFUL: no node.
[[nodiscard]] NTSTATUS RecordFreeChunk(PVOLUME_EXTENSION volume, LONGLONG swapOffset, ULONG length)
    KVR_REQUIRES(volume->SwapLock);

// A range becomes redirected and is counted; one that begins inside a redirected range is not recorded.
// Failures as above.
[[nodiscard]] NTSTATUS RecordSwappedChunk(PVOLUME_EXTENSION volume, LONGLONG volumeOffset, LONGLONG swapOffset,
                                          ULONG length, ULONG bVolatile) KVR_REQUIRES(volume->SwapLock);

// Says of a chunk that could not be recorded why not, with one of two messages (formats for the line). Nothing
// for a success; a null message is none.
void ReportLoss(NTSTATUS status, ULONG line, PCSTR noRecord, PCSTR noNode);

// Releases every record and sets the counters accordingly; the trees stay usable.
void EmptySwappedChunks(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock);
void EmptyFreeChunks(PVOLUME_EXTENSION volume) KVR_REQUIRES(volume->SwapLock);
