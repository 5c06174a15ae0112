// Redirected writes: of requests, and of the write cache's buffers.
#include "driver/record/requests.h"
#include "platform/assert.h"
#include "redirect/request_io.h"
#include "redirect/run_transfers.h"

namespace {

// One write.
struct WRITE_CALL {
    PVOLUME_EXTENSION volume;
    PIRP request;  // null for a buffer of the write cache
    ULONG bVolatile;
    WritePlace* place;
    SEGMENT* list = nullptr;
    RequestPages pages{};
    PoolPtr<UCHAR> copy{};
    RunTransfers transfers{IRP_MJ_WRITE, volume};
    NTSTATUS status = STATUS_UNSUCCESSFUL;  // commits are for STATUS_SUCCESS alone
};

// Makes sure that the segment has a place in the swap: the one it has meanwhile got by another write, or new
// space. Afterwards it is in the swap or holds exactly one pending chunk; what a split leaves over follows it.
NTSTATUS PlaceSegment(WRITE_CALL& call, SEGMENT* segment) {
    if (segment->bInSwap || segment->pChunk) return STATUS_SUCCESS;
    segment->bInSwap = GetSwapRunLength(call.volume, segment->liVolumeOffset.QuadPart) != 0;
    if (segment->bInSwap) {
        const NTSTATUS status = SplitSegmentBySwapRuns(call.volume, segment);
        if (!NT_SUCCESS(status) || segment->bInSwap) return status;
    }
    const NTSTATUS status =
        LockFreeChunks(call.volume, &segment->liVolumeOffset, segment->uLength, &segment->pChunk, call.request);
    if (!NT_SUCCESS(status)) return status;
    // Success gave at least one chunk, which the analysis does not see. NOLINTNEXTLINE(clang-analyzer-core.*)
    return segment->pChunk->pNext ? SplitSegmentByChunks(call.volume, segment) : STATUS_SUCCESS;
}

// The status below 0 that ended the walk, or the last one. A run's place is found while earlier runs are under
// way: nothing of it counts before the commit, which comes after all.
NTSTATUS WriteRuns(WRITE_CALL& call, UCHAR* data) {
    RunTransfers& transfers = call.transfers;
    PDEVICE_OBJECT device = call.list ? transfers.SwapTarget() : nullptr;
    if (call.list && !device) return STATUS_NO_SUCH_DEVICE;
    NTSTATUS placed = STATUS_SUCCESS;
    for (SEGMENT* pCurrent = call.list; pCurrent && transfers.MayBegin(); pCurrent = pCurrent->pNext) {
        placed = PlaceSegment(call, pCurrent);
        if (!NT_SUCCESS(placed)) break;
        const LARGE_INTEGER at = pCurrent->pChunk ? pCurrent->pChunk->liSwapOffset : pCurrent->liSwapOffset;
        KVR_ASSERT(kSwapSource, 0 != pCurrent->uLength);
        KVR_ASSERT(kSwapSource, 0 != (pCurrent->pChunk ? pCurrent->pChunk->liSwapOffset.QuadPart
                                                       : pCurrent->liSwapOffset.QuadPart));
        transfers.Begin(pCurrent, device, at.QuadPart, data);
    }
    const NTSTATUS status = transfers.End();
    return NT_SUCCESS(placed) || !NT_SUCCESS(status) ? status : placed;
}

// A volume's sectors are written whole. A write that begins inside one would be recorded as a range that no
// later request finds at its own sectors; a disk refuses it, and so does the redirection.
NTSTATUS CutWrite(WRITE_CALL& call, ULONG length, const LARGE_INTEGER* offset) {
    const ULONG unit = call.volume->BytesPerSector;
    if (unit != 0 && offset->QuadPart % unit != 0) return STATUS_INVALID_PARAMETER;
    return BuildSegments(call.volume, length, offset, &call.list);
}

// The copy is taken once, before the first transfer, so that a caller who changes the buffer meanwhile cannot
// make the runs of one write differ in age.
NTSTATUS WriteBody(WRITE_CALL& call) {
    const auto& write = IoGetCurrentIrpStackLocation(call.request)->Parameters.Write;
    const NTSTATUS status = CutWrite(call, write.Length, &write.ByteOffset);
    if (!NT_SUCCESS(status) || write.Length == 0) return status;
    call.pages.Lock(call.request);
    PVOID pBuffer = call.pages.Map(call.request);
    if (!pBuffer) {
        ReportAssertion("NULL != pBuffer", kSwapSource, __LINE__);
        return STATUS_INVALID_PARAMETER;
    }
    call.copy = NewBuffer(write.Length);
    if (!call.copy) return WriteRuns(call, static_cast<UCHAR*>(pBuffer));
    RtlCopyMemory(call.copy.Get(), pBuffer, write.Length);
    return WriteRuns(call, call.copy.Get());
}

NTSTATUS WriteBufferBody(WRITE_CALL& call, PVOID pBuffer, ULONG length, const LARGE_INTEGER* offset) {
    const NTSTATUS status = CutWrite(call, length, offset);
    if (!pBuffer) {
        ReportAssertion("NULL != pBuffer", kSwapSource, __LINE__);
        return STATUS_INVALID_PARAMETER;
    }
    return NT_SUCCESS(status) ? WriteRuns(call, static_cast<UCHAR*>(pBuffer)) : status;
}

void CleanUp(WRITE_CALL& call) {
    KVR_DISCARD(call.transfers.End(), "under way only where the body has left by an exception");
    ReleaseSegmentChunks(call.volume, call.list, call.status == STATUS_SUCCESS, call.bVolatile);
    call.place->Leave();
    call.copy.Reset();
    call.transfers.Release();
    call.pages.Unlock();
}

}  // namespace

NTSTATUS WriteSegments(PVOLUME_EXTENSION volume, PIRP request, ULONG bVolatile, WritePlace* place) {
    WRITE_CALL call{volume, request, bVolatile, place};
    request->IoStatus.Status = STATUS_SUCCESS;
    request->IoStatus.Information = 0;
    const NTSTATUS status =
        RunWithCleanup([&] { return call.status = WriteBody(call); }, [&] { CleanUp(call); });
    return CompleteRequest(request, status, BytesOf(status, call.transfers.Moved()));
}

NTSTATUS WriteSectorsFromBuffer(PVOLUME_EXTENSION volume, PVOID buffer, ULONG length,
                                const LARGE_INTEGER* offset) {
    DbgPrint("Kvr!WriteSectorsFromBuffer(%p) enter(%d)\n", buffer, KeGetCurrentIrql());
    WritePlace place(volume, offset, length);
    WRITE_CALL call{volume, nullptr, 0, &place};
    const NTSTATUS status = RunWithCleanup(
        [&] { return call.status = WriteBufferBody(call, buffer, length, offset); }, [&] { CleanUp(call); });
    DbgPrint("Kvr!WriteSectorsFromBuffer leave(%d) %x\n", KeGetCurrentIrql(), status);
    return status;
}
