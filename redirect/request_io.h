// The requests of a protected volume, carried out run by run with lower requests. A redirected
// write never changes the sectors that it addresses. IRQL: below DISPATCH_LEVEL (page locking: at most
// APC_LEVEL); no lock is held while a lower request is in flight. The caller holds the volume's record
// throughout.
#pragma once
#include "driver/record/sector_io.h"
#include "redirect/segments.h"
#include "redirect/write_order.h"
#include "swap/swap_file.h"

// Serves a read from the volume and the swap, or passes it down when the swap has no part in it. The request is
// completed, or the lower driver's; its status is the result.
[[nodiscard]] NTSTATUS ReadSegments(PVOLUME_EXTENSION volume, PIRP request);
// Writes the request's data to the swap and completes the request: with success all new space is committed
// (`bVolatile` 1: until the next boot only), otherwise none. STATUS_INVALID_PARAMETER for an offset inside a
// sector and for a buffer that cannot be mapped; STATUS_MEDIA_WRITE_PROTECTED when there is no swap space for
// it. `place` is the request's; it is left when the outcome is recorded, before the request is completed.
[[nodiscard]] NTSTATUS WriteSegments(PVOLUME_EXTENSION volume, PIRP request, ULONG bVolatile,
                                     WritePlace* place);
// The same for `length` bytes of a kernel buffer at byte `offset`, without a request; takes a place of its own.
[[nodiscard]] NTSTATUS WriteSectorsFromBuffer(PVOLUME_EXTENSION volume, PVOID buffer, ULONG length,
                                              const LARGE_INTEGER* offset);

// Locking and mapping a request's buffer. Lock raises what page locking raises; Unlock undoes exactly what this
// object locked and is safe at any time.
class RequestPages {
public:
    void Lock(PIRP request);
    [[nodiscard]] PVOID Map(PIRP request);  // null when the pages cannot be mapped
    void Unlock();

private:
    PMDL m_master = nullptr;
    PMDL m_own = nullptr;
};

// body(), then cleanup() however the body ends; an exception of the kernel becomes the status. What both work
// on stands in the caller's frame, which no exception crosses: owners there are as good as anywhere, and
// cleanup() releases them where the order counts.
template <class Body, class Cleanup>
[[nodiscard]] NTSTATUS RunWithCleanup(const Body& body, const Cleanup& cleanup) {
    return TryExcept([&]() -> NTSTATUS {
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        TryFinally([&] { status = body(); }, cleanup);
        return status;
    });
}

// A request that fails reports no bytes.
inline ULONG_PTR BytesOf(NTSTATUS status, ULONG_PTR information) {
    return status == STATUS_SUCCESS ? information : 0;
}
