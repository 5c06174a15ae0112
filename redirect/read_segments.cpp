// Reads of a protected volume.
#include "driver/record/requests.h"
#include "platform/assert.h"
#include "redirect/request_io.h"

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
    RUN_TRANSFERS transfers{};
};

bool IsAllOnVolume(const SEGMENT* list) {
    return !list || (!list->bInSwap && !list->pNext);
}

// The status below 0 that ended the walk, or the last one. Every byte of `data` has a defined value
// afterwards: what the devices did not deliver is zero, so nothing of the pool's past reaches the caller.
NTSTATUS ReadRuns(READ_CALL& call, UCHAR* data) {
    NTSTATUS status = STATUS_SUCCESS;
    ULONG filled = 0;
    for (SEGMENT* pCurrent = call.list; pCurrent; pCurrent = pCurrent->pNext) {
        KVR_ASSERT(kSwapSource, 0 != pCurrent->uLength);
        PDEVICE_OBJECT device = pCurrent->bInSwap ? call.transfers.swap.Of(call.volume) : call.volume->Target;
        status = call.transfers.Transfer(IRP_MJ_READ, device, data + pCurrent->uOffset, pCurrent->uLength,
                                         pCurrent->bInSwap ? pCurrent->liSwapOffset : pCurrent->liVolumeOffset);
        if (!NT_SUCCESS(status)) break;
        filled = pCurrent->uOffset + pCurrent->uLength;
        const ULONG_PTR got = call.transfers.iosb.Information;
        if (got < pCurrent->uLength) RtlZeroMemory(data + pCurrent->uOffset + got, pCurrent->uLength - got);
    }
    RtlZeroMemory(data + filled, call.length - filled);
    return status;
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
    return ReadRuns(call, call.bounce ? call.bounce.Get() : call.mapped);
}

void CleanUp(READ_CALL& call) {
    ReleaseSegmentChunks(call.volume, call.list, FALSE, 0);
    if (call.bounce) RtlCopyMemory(call.mapped, call.bounce.Get(), call.length);
    call.bounce.Reset();
    call.transfers.swap.Release();
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
    return CompleteRequest(request, status, BytesOf(status, call.transfers.transferred));
}
