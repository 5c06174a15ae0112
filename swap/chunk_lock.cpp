// Taking free space for a write, and giving it back.
#include "driver/record/names.h"
#include "platform/assert.h"
#include "platform/owners.h"
#include "swap/chunk_maps.h"

namespace {

// The file that the request, or the one it is a part of, was made for. A stack location's file object does not
// count here: with it, less would pass as a write without a file.
PFILE_OBJECT OriginalFileOf(PIRP request) {
    if (!request) return nullptr;
    if (request->Tail.Overlay.OriginalFileObject) return request->Tail.Overlay.OriginalFileObject;
    PIRP master = (request->Flags & IRP_ASSOCIATED_IRP) ? request->AssociatedIrp.MasterIrp : nullptr;
    return master ? master->Tail.Overlay.OriginalFileObject : nullptr;
}

bool BeginsWith(PCUNICODE_STRING name, PCUNICODE_STRING prefix) {
    if (name->Length < prefix->Length) return false;
    const UNICODE_STRING head = {prefix->Length, prefix->Length, name->Buffer};
    return CompareNames(&head, prefix, TRUE) == 0;
}

bool IsMetadataName(PCUNICODE_STRING name) {
    const SPECIAL_FILE_NAMES& special = SpecialFileNames;
    return CompareNames(name, &special.Mft, TRUE) == 0 || CompareNames(name, &special.Directory, TRUE) == 0 ||
           CompareNames(name, &special.BitMap, TRUE) == 0 || CompareNames(name, &special.MftMirr, TRUE) == 0 ||
           BeginsWith(name, &special.SystemVolumeInformation);
}

// What is left while space is low is kept for the file system's metadata, so that the volume stays usable; a
// write without a file object may be metadata, one with a file object without a name is not known to be.
// Not under SwapLock: a file's name is pageable, and paging it in may read a volume whose lock it is.
bool MayUseReserve(PIRP request) {
    PFILE_OBJECT file = OriginalFileOf(request);
    return !file || IsMetadataName(&file->FileName);
}

// Moves up to `length` bytes from the low end of the chunk at `cursor`, the tree's smallest, to
// `pPendingChunk`. Returns the cursor for what is still wanted.
TREE_NODE* MoveToPending(PVOLUME_EXTENSION volume, TREE_NODE* cursor, PENDING_CHUNK* pPendingChunk,
                         ULONG length) KVR_REQUIRES(volume->SwapLock) {
    auto* chunk = static_cast<FREE_CHUNK*>(cursor->Record);
    pPendingChunk->liSwapOffset = chunk->liSwapOffset;
    pPendingChunk->uLength = chunk->uLength < length ? chunk->uLength : length;
    KVR_ASSERT(kSwapSource, 0 != pPendingChunk->uLength);
    chunk->uLength -= pPendingChunk->uLength;
    DebitFreeSpace(volume, pPendingChunk->uLength);
    if (chunk->uLength != 0) {
        chunk->liSwapOffset.QuadPart += pPendingChunk->uLength;  // still the smallest: the order holds
        return nullptr;
    }
    TREE_NODE* next = tree_next(&volume->FreeChunks, cursor);
    tree_delete(&volume->FreeChunks, cursor);  // the smallest node: `next` survives it
    return next;
}

NTSTATUS TakeFreeChunks(PVOLUME_EXTENSION volume, LONGLONG position, ULONG length, PENDING_CHUNK** chain)
    KVR_REQUIRES(volume->SwapLock) {
    TREE_NODE* cursor = tree_first(&volume->FreeChunks, volume->FreeChunks.Root);
    while (length > 0) {
        if (!cursor) return STATUS_MEDIA_WRITE_PROTECTED;
        PENDING_CHUNK* pending = CreatePendingChunk();
        if (!pending) {
            DbgPrint("Kvr!LockFreeChunks [%d] STATUS_INSUFFICIENT_RESOURCES\n", __LINE__);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        pending->liVolumeOffset.QuadPart = position;
        cursor = MoveToPending(volume, cursor, pending, length);
        position += pending->uLength;
        length -= pending->uLength;
        *chain = pending;
        chain = &pending->pNext;
    }
    return STATUS_SUCCESS;
}

}  // namespace

PENDING_CHUNK* CreatePendingChunk() {
    PoolPtr<PENDING_CHUNK> chunk = NewRecord<PENDING_CHUNK>();
    if (!chunk) DbgPrint("Kvr!CreatePendingChunk [%d] STATUS_INSUFFICIENT_RESOURCES\n", __LINE__);
    return chunk.Release();
}

NTSTATUS LockFreeChunks(PVOLUME_EXTENSION volume, const LARGE_INTEGER* volumeOffset, ULONG length,
                        PENDING_CHUNK** chain, PIRP request) {
    if (*chain && (*chain)->liSwapOffset.QuadPart != 0)
        KVR_DISCARD(UnlockFreeChunks(volume, *chain), "it reports what it loses, and this attempt goes on");
    *chain = nullptr;
    {
        FastMutexLock lock(volume->SwapLock);
        volume->MapDirty = TRUE;
        if (volume->SwapFreeBytes >= kLowSpaceLimit)
            return TakeFreeChunks(volume, volumeOffset->QuadPart, length, chain);
    }
    const bool mayUseReserve = MayUseReserve(request);
    FastMutexLock lock(volume->SwapLock);
    const bool low = volume->SwapFreeBytes < kLowSpaceLimit;
    if (low && (!mayUseReserve || volume->SwapFreeBytes < kNoSpaceLimit)) return STATUS_MEDIA_WRITE_PROTECTED;
    return TakeFreeChunks(volume, volumeOffset->QuadPart, length, chain);
}

NTSTATUS UnlockFreeChunks(PVOLUME_EXTENSION volume, PENDING_CHUNK* chain) {
    FastMutexLock lock(volume->SwapLock);
    volume->MapDirty = TRUE;
    NTSTATUS result = STATUS_SUCCESS;
    while (chain) {
        const PoolPtr<PENDING_CHUNK> chunk(chain);
        chain = chunk->pNext;
        const NTSTATUS status = RecordFreeChunk(volume, chunk->liSwapOffset.QuadPart, chunk->uLength);
        ReportLoss(status, __LINE__, "Kvr!UnlockFreeChunks [%d] STATUS_INSUFFICIENT_RESOURCES\n",
                   "Kvr!UnlockFreeChunks [%d] STATUS_UNSUCCESSFUL\n");
        if (!NT_SUCCESS(status)) result = status;
    }
    return result;
}
