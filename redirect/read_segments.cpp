// Reads of a protected volume.
#include "driver/record/requests.h"
#include "platform/assert.h"
#include "redirect/request_io.h"
#include "redirect/run_transfers.h"

namespace {

// One read.
struct READ_CALL {
    PVOLUME_EXTENSION volume;
    PIRP request;
    ULONG length;
    LARGE_INTEGER offset;
    SEGMENT* list = nullptr;
    RequestPages pages{};
    UCHAR* mapped = nullptr;
    PoolPtr<UCHAR> bounce{};
    RunTransfers transfers{IRP_MJ_READ, volume};

    UCHAR* Data() const { return bounce ? bounce.Get() : mapped; }
};

bool IsAllOnVolume(const SEGMENT* list) {
    return !list || (!list->bInSwap && !list->pNext);
}

// The status below 0 that ended the walk, or the last one.
NTSTATUS ReadRuns(READ_CALL& call, UCHAR* data) {
    RunTransfers& transfers = call.transfers;
    for (SEGMENT* pCurrent = call.list; pCurrent && transfers.MayBegin(); pCurrent = pCurrent->pNext) {
        KVR_ASSERT(kSwapSource, 0 != pCurrent->uLength);
        if (pCurrent->bInSwap)
            transfers.Begin(pCurrent, transfers.SwapTarget(), pCurrent->liSwapOffset.QuadPart, data);
        else
            transfers.Begin(pCurrent, call.volume->Target, pCurrent->liVolumeOffset.QuadPart, data);
    }
    return transfers.End();
}

NTSTATUS ReadBody(READ_CALL& call) {
    call.pages.Lock(call.request);
    PVOID pBuffer = call.pages.Map(call.request);
    if (!pBuffer) {
        ReportAssertion("NULL != pBuffer", kSwapSource, __LINE__);
        return STATUS_INVALID_PARAMETER;
    }
    call.mapped = static_cast<UCHAR*>(pBuffer);
    call.bounce = NewBuffer(call.length);
    return ReadRuns(call, call.Data());
}

// Every byte that the caller gets has a defined value: what the devices did not deliver is zero, so nothing of
// the pool's past is among them.
void CleanUp(READ_CALL& call) {
    KVR_DISCARD(call.transfers.End(), "under way only where the body has left by an exception");
    if (call.mapped)
        RtlZeroMemory(call.Data() + call.transfers.Filled(), call.length - call.transfers.Filled());
    ReleaseSegmentChunks(call.volume, call.list, FALSE, 0);
    if (call.bounce) RtlCopyMemory(call.mapped, call.bounce.Get(), call.length);
    call.bounce.Reset();
    call.transfers.Release();
    call.pages.Unlock();
}

}  // namespace

NTSTATUS ReadSegments(PVOLUME_EXTENSION volume, PIRP request) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(request);
    READ_CALL call{volume, request, stack->Parameters.Read.Length, stack->Parameters.Read.ByteOffset};
    request->IoStatus.Status = STATUS_SUCCESS;
    request->IoStatus.Information = 0;
    NTSTATUS status = BuildSegments(volume, call.length, &call.offset, &call.list);
    if (NT_SUCCESS(status) && IsAllOnVolume(call.list)) {
        ReleaseSegmentChunks(volume, call.list, FALSE, 0);
        return PassIrpDown(volume->FilterDevice, request);
    }
    if (NT_SUCCESS(status))
        status = RunWithCleanup([&] { return ReadBody(call); }, [&] { CleanUp(call); });
    else
        ReleaseSegmentChunks(volume, call.list, FALSE, 0);
    return CompleteRequest(request, status, BytesOf(status, call.transfers.Moved()));
}
